#include "common/SqlSchema.h"

#include "common/Logging.h"
#include "common/StorageException.h"

#include <sys/stat.h>
#include <unistd.h>

namespace vantor::common::internal
{

std::unique_ptr<SqlConnection> SqlSchema::Open(const std::string& file, const SqlDataFormatter& formatter)
{
    struct stat st
    {
    };
    auto connection = ::stat(file.c_str(), &st) == 0
                          ? std::make_unique<SqlConnection>(file, SqlConnection::Mode::OpenExisting)
                          : Create(file, formatter);
    Upgrade(*connection, file, formatter);
    connection->Vacuum();
    return connection;
}

std::unique_ptr<SqlConnection> SqlSchema::Create(const std::string& file, const SqlDataFormatter& formatter)
{
    auto connection = std::make_unique<SqlConnection>(file, SqlConnection::Mode::Create);
    try
    {
        connection->RunInTransaction(formatter.GetCreateStatements());
    }
    catch (const std::exception& e)
    {
        connection.reset();
        ::unlink(file.c_str());
        throw StorageException(std::string("SqlStorage: Error setting up DB: ") + e.what());
    }
    EDR_LOG_INFO("SqlStorage: Created DB " << file);
    return connection;
}

void SqlSchema::Upgrade(SqlConnection& connection, const std::string& file, const SqlDataFormatter& formatter)
{
    const std::string versionQuery = formatter.GetSchemaVersionQuery();
    if (versionQuery.empty())
    {
        return;
    }
    try
    {
        const std::int64_t version = connection.QueryInteger(versionQuery);
        const auto statements = formatter.GetUpgradeStatements(version);
        if (statements.empty())
        {
            return;
        }
        EDR_LOG_INFO("SqlStorage: Upgrading schema of " << file << " from version " << version);
        connection.RunInTransaction(statements);
    }
    catch (const std::exception& e)
    {
        throw StorageException(std::string("SqlStorage: Error upgrading DB: ") + e.what());
    }
}

} // namespace vantor::common::internal
