#include "ioc/ImageFile.h"

#include "common/UniqueFd.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/fs.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vantor::ioc
{

namespace
{

std::string LookUpUserName(uid_t uid)
{
    std::vector<char> buffer(4096);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || !found)
    {
        return {};
    }
    return found->pw_name;
}

std::string LookUpGroupName(gid_t gid)
{
    std::vector<char> buffer(4096);
    group entry{};
    group* found = nullptr;
    if (getgrgid_r(gid, &entry, buffer.data(), buffer.size(), &found) != 0 || !found)
    {
        return {};
    }
    return found->gr_name;
}

// Names by id, looked up once a minute at most: every process start needs
// its image's owner, and each NSS lookup opens and scans /etc/passwd or
// /etc/group. A renamed account shows its new name within kNameLifetime.
class NameCache
{
public:
    using LookUp = std::string (*)(uint32_t);

    explicit NameCache(LookUp lookUp)
        : m_lookUp(lookUp)
    {
    }

    std::string Name(uint32_t id)
    {
        const auto now = std::chrono::steady_clock::now();
        std::lock_guard lock(m_mutex);
        auto it = m_names.find(id);
        if (it == m_names.end() || now - it->second.first >= kNameLifetime)
        {
            if (m_names.size() >= kMaxNames)
            {
                m_names.clear();
            }
            auto name = m_lookUp(id);
            it = m_names.insert_or_assign(id, std::pair{now, std::move(name)}).first;
        }
        return it->second.second;
    }

private:
    static constexpr std::chrono::minutes kNameLifetime{1};
    static constexpr size_t kMaxNames = 4096;

    const LookUp m_lookUp;
    std::mutex m_mutex;
    std::unordered_map<uint32_t, std::pair<std::chrono::steady_clock::time_point, std::string>> m_names;
};

std::string UserName(uid_t uid)
{
    static NameCache users([](uint32_t id) { return LookUpUserName(id); });
    return users.Name(uid);
}

std::string GroupName(gid_t gid)
{
    static NameCache groups([](uint32_t id) { return LookUpGroupName(id); });
    return groups.Name(gid);
}

std::string InodeFlags(const std::string& path)
{
    // O_NONBLOCK: an image on a FIFO or device must not hang the caller.
    common::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    int flags = 0;
    if (!fd || ::ioctl(fd.Get(), FS_IOC_GETFLAGS, &flags) != 0)
    {
        return {};
    }
    char text[16];
    std::snprintf(text, sizeof(text), "%x", static_cast<unsigned>(flags));
    return text;
}

// The inode flags of images by path, valid while the file's device, inode
// and change time stay: every process start examines its image, mostly the
// same few executables, and the flags cost an open and an ioctl. Changing
// the flags changes the change time.
class FlagsCache
{
public:
    std::string Flags(const std::string& path, const struct stat& st)
    {
        const Key key{st.st_dev, st.st_ino, st.st_ctim.tv_sec, st.st_ctim.tv_nsec};
        {
            std::lock_guard lock(m_mutex);
            if (const auto it = m_flags.find(path); it != m_flags.end() && it->second.first == key)
            {
                return it->second.second;
            }
        }
        auto flags = InodeFlags(path);
        std::lock_guard lock(m_mutex);
        if (m_flags.size() >= kMaxPaths)
        {
            m_flags.clear();
        }
        m_flags.insert_or_assign(path, std::pair{key, flags});
        return flags;
    }

private:
    struct Key
    {
        dev_t device;
        ino_t inode;
        time_t changeSeconds;
        long changeNanoseconds;
        bool operator==(const Key&) const = default;
    };
    static constexpr size_t kMaxPaths = 4096;

    std::mutex m_mutex;
    std::unordered_map<std::string, std::pair<Key, std::string>> m_flags;
};

} // namespace

ImageFile ImageFile::FromPath(const std::string& path)
{
    ImageFile image;
    image.path = path;
    struct stat st
    {
    };
    if (path.empty() || ::stat(path.c_str(), &st) != 0)
    {
        return image;
    }
    image.deviceId = std::to_string(major(st.st_dev)) + ":" + std::to_string(minor(st.st_dev));
    image.attributes = st.st_mode;
    image.inode = static_cast<int64_t>(st.st_ino);
    image.ownerGid = st.st_gid;
    image.ownerGroup = GroupName(st.st_gid);
    image.ownerUid = st.st_uid;
    image.ownerName = UserName(st.st_uid);
    static FlagsCache flags;
    image.fsAttributes = flags.Flags(path, st);
    return image;
}

} // namespace vantor::ioc
