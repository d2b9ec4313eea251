#pragma once

#include "ioc/protobuf/IocEvents.pb.h"

#include <string>
#include <vector>

namespace vantor::tools
{

// Readable lines of an IOC event batch, for the test receiver and for
// people looking at uploads: one line for the batch, then one per event:
//   batch <sequenceNo> agent <agentId> customer <customerId> boot <bootTime> quarantined <0|1> events <n>
//   <kind> <ACTION> pid <pid> (<actor image>) <path or endpoint or module> [meta <agentMetaData>]
// Actions are written with their enum names (READ stays READ); paths as
// the batch holds them (escaped host bytes).
class IocBatchPrinter
{
public:
    static std::vector<std::string> Describe(const ::com::corvid::ioc::model::proto::event::IoCEvent& batch);
};

} // namespace vantor::tools
