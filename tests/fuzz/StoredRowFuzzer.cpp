// libFuzzer entry point: any bytes as a row read back from the daemon's
// databases (the IOC process snapshot, FIM's file states, the health-status
// records) and as the texts stored inside a process row. A database damaged
// on disk or written by another version is refused row by row, never with a
// crash.

#include "edr/AHSSqlDataFormatter.h"
#include "fim/BaselineEventSqlDataFormatter.h"
#include "fim/FileState.h"
#include "ioc/TtlProcessRow.h"
#include "tests/fuzz/FuzzSupport.h"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    vantor::test::QuietLogsAtTrace();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string row(reinterpret_cast<const char*>(data), size);
    vantor::test::Refusable([&] { vantor::ioc::internal::TtlProcessRow::Parse(row); });
    vantor::test::Refusable([&] { vantor::ioc::internal::TtlProcessRow::ParseChildren(row); });
    vantor::test::Refusable([&] { vantor::ioc::internal::TtlProcessRow::ParseTags(row); });
    vantor::test::Refusable([&] { vantor::fim::BaselineEventSqlDataFormatter::ParseState(row); });
    vantor::test::Refusable([&] { vantor::edr::AHSSqlDataFormatter::ParseRecord(row); });
    return 0;
}
