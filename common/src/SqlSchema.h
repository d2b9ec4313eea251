#pragma once

#include "common/SqlConnection.h"
#include "common/SqlDataFormatter.h"

#include <memory>
#include <string>

namespace vantor::common::internal
{

// Brings a database file to the schema its formatter describes. An existing
// file is opened and never given tables; a new file gets the formatter's
// create statements in one transaction and is removed again if they fail,
// since a file without its schema would pass as set up at the next open. A
// versioned schema is then brought up to date by the formatter's upgrade
// statements, and the file is vacuumed.
//
// Stateless; one file is set up by one caller at a time.
class SqlSchema
{
public:
    // Throws StorageException "SqlStorage: Error opening DB: ", "SqlStorage:
    // Error creating DB: ", "SqlStorage: Error setting up DB: " or
    // "SqlStorage: Error upgrading DB: " with the reason.
    static std::unique_ptr<SqlConnection> Open(const std::string& file, const SqlDataFormatter& formatter);

private:
    static std::unique_ptr<SqlConnection> Create(const std::string& file, const SqlDataFormatter& formatter);
    static void Upgrade(SqlConnection& connection, const std::string& file,
                        const SqlDataFormatter& formatter);
};

} // namespace vantor::common::internal
