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

#include <cstdio>
#include <vector>

namespace vantor::ioc
{

namespace
{

std::string UserName(uid_t uid)
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

std::string GroupName(gid_t gid)
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
    image.fsAttributes = InodeFlags(path);
    return image;
}

} // namespace vantor::ioc
