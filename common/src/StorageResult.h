#pragma once

#include <string>
#include <vector>

namespace vantor::common
{

// Outcome of one storage operation. For a read, each row holds the
// serialised columns of one database row (see SqlRowIterator); a read that
// finds nothing succeeds with no rows.
struct StorageResult
{
    bool success = false;
    std::vector<std::string> rows;
    // Why the operation failed; empty on success.
    std::string error;
};

} // namespace vantor::common
