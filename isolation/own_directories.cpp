#include "isolation/own_directories.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace
{

bool enter_namespaces();
bool keep_mounts_to_ourselves();

} // namespace

void own_directories_make(const std::string &directory)
{
    for (const char *name : {"/run", "/tmp"})
        std::filesystem::create_directory(directory + name);
}

bool own_directories_enter(const std::string &directory)
{
    const auto bind = [](const std::string &from, const char *to) {
        return mount(from.c_str(), to, nullptr, MS_BIND | MS_REC, nullptr) == 0;
    };
    return enter_namespaces() && keep_mounts_to_ourselves() && bind(directory + "/run", "/run") &&
           bind(directory + "/tmp", "/var/tmp");
}

namespace
{

bool write_file(const char *path, const std::string &text)
{
    std::ofstream file(path);
    file << text;
    file.close();
    return file.good();
}

/* A user who may make namespaces is root in them; real root needs no user namespace. */
bool enter_namespaces()
{
    const std::string user = std::to_string(getuid());
    const std::string group = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
        return unshare(CLONE_NEWNS) == 0;
    return write_file("/proc/self/setgroups", "deny") &&
           write_file("/proc/self/uid_map", "0 " + user + " 1") &&
           write_file("/proc/self/gid_map", "0 " + group + " 1");
}

/*
 * What we mount is for us only. That is said of a mount, and in a chroot "/" may be a
 * mere folder of one that cannot be named: joining a namespace leads to its real root,
 * from which we come back.
 */
bool keep_mounts_to_ourselves()
{
    const auto make_private = [] {
        return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    };
    if (make_private())
        return true;
    if (errno != EINVAL)
        return false;
    const int root = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    const int here = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    const int own = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
    return setns(own, CLONE_NEWNS) == 0 && make_private() && fchdir(root) == 0 &&
           chroot(".") == 0 && fchdir(here) == 0;
}

} // namespace
