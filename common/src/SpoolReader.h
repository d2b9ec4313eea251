#pragma once

#include "common/SpoolFileIndex.h"
#include "common/SpoolStorage.h"

namespace vantor::common::internal
{

// Reads a spool's files for upload, oldest first, and deletes a file once
// its content went out, finding it again by inode when a de-fragmentation
// renamed it meanwhile. A file that cannot be read is deleted (it would
// block every file behind it) unless the failure is transient.
//
// Not thread-safe: the spool calls it under its mutex.
class SpoolReader
{
public:
    explicit SpoolReader(SpoolFileIndex& files);

    SpoolStorage::ReadStatus ReadOldest(SpoolStorage::File& file);
    bool Delete(const SpoolStorage::File& file);

private:
    SpoolFileIndex& m_files;
};

} // namespace vantor::common::internal
