#pragma once

#include <sys/types.h>

#include <string>

namespace vantor::fim::internal
{

// Names of the owner and group of a file for the security settings of an
// event document. An id that the account database does not know is answered
// as its number, so that the document still tells who owns the file.
//
// An answer is kept for a second, per thread: the documents built meanwhile
// mostly ask the same few ids, and each lookup reads the account database.
//
// Uses the reentrant lookups; callable from any thread.
class AccountNames
{
public:
    static std::string UserName(uid_t uid);
    static std::string GroupName(gid_t gid);
};

} // namespace vantor::fim::internal
