#include "sim/sim_host.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <unistd.h>
#include <utility>

#include "sim/sim_call.h"
#include "sim/sim_process.h"

namespace sim
{

namespace
{

constexpr size_t FILES_MAX = 4096;
constexpr size_t FILE_SIZE_MAX = 1U << 20;
constexpr size_t DESCRIPTORS_MAX = 64;
constexpr int FIRST_DESCRIPTOR = 3;

struct File {
    std::string text;
    int lock_owner = 0; /* pid */
};

struct Descriptor {
    std::shared_ptr<File> file; /* none: free */
    int pid;
    int flags;
    size_t offset;
};

struct Host {
    std::map<std::string, std::shared_ptr<File>> files;
    std::array<Descriptor, DESCRIPTORS_MAX> descriptors = {};
};

Host host;

/* Whether the caller is the simulated program itself. */
bool program_calls()
{
    return process_is_current() && !call_detail::platform_runs;
}

int fail(int error)
{
    errno = error < 0 ? -error : error;
    return -1;
}

File *find_file(const std::string &path)
{
    const auto at = host.files.find(path);
    return at == host.files.end() ? nullptr : at->second.get();
}

File &make_file(const std::string &path)
{
    auto &file = host.files[path];
    if (file == nullptr)
        file = std::make_shared<File>();
    return *file;
}

/* An open descriptor of the calling process, or NULL. */
Descriptor *find_descriptor(int fd)
{
    const auto at = static_cast<size_t>(fd - FIRST_DESCRIPTOR);
    if (fd < FIRST_DESCRIPTOR || at >= DESCRIPTORS_MAX)
        return nullptr;
    Descriptor &descriptor = host.descriptors[at];
    return descriptor.file != nullptr && descriptor.pid == process_pid() ? &descriptor : nullptr;
}

bool can_read(const Descriptor *descriptor)
{
    return descriptor != nullptr && (descriptor->flags & O_ACCMODE) != O_WRONLY;
}

bool can_write(const Descriptor *descriptor)
{
    return descriptor != nullptr && (descriptor->flags & O_ACCMODE) != O_RDONLY;
}

void close_descriptor(Descriptor &descriptor)
{
    if (descriptor.file->lock_owner == descriptor.pid)
        descriptor.file->lock_owner = 0;
    descriptor = {};
}

int host_open(const char *path, int flags)
{
    const File *known = find_file(path);
    if (known == nullptr && (flags & O_CREAT) == 0)
        return fail(ENOENT);
    if (known != nullptr && (flags & O_CREAT) != 0 && (flags & O_EXCL) != 0)
        return fail(EEXIST);
    if (known == nullptr && host.files.size() >= FILES_MAX)
        return fail(ENOSPC);
    const auto place = std::find_if(host.descriptors.begin(), host.descriptors.end(),
                                    [](const Descriptor &one) { return one.file == nullptr; });
    if (place == host.descriptors.end())
        return fail(EMFILE);
    File &file = make_file(path);
    if ((flags & O_TRUNC) != 0)
        file.text.clear();
    *place = {host.files[path], process_pid(), flags, 0};
    return FIRST_DESCRIPTOR + static_cast<int>(place - host.descriptors.begin());
}

ssize_t host_read(int fd, void *buffer, size_t size)
{
    Descriptor *descriptor = find_descriptor(fd);
    if (!can_read(descriptor))
        return fail(EBADF);
    const std::string &text = descriptor->file->text;
    const size_t at = std::min(descriptor->offset, text.size());
    const size_t count = std::min(size, text.size() - at);
    std::memcpy(buffer, text.data() + at, count);
    descriptor->offset = at + count;
    return static_cast<ssize_t>(count);
}

ssize_t host_write(int fd, const void *buffer, size_t size)
{
    Descriptor *descriptor = find_descriptor(fd);
    if (!can_write(descriptor))
        return fail(EBADF);
    std::string &text = descriptor->file->text;
    if ((descriptor->flags & O_APPEND) != 0)
        descriptor->offset = text.size();
    if (size > FILE_SIZE_MAX || descriptor->offset > FILE_SIZE_MAX - size)
        return fail(EFBIG);
    if (text.size() < descriptor->offset + size)
        text.resize(descriptor->offset + size);
    std::memcpy(text.data() + descriptor->offset, buffer, size);
    descriptor->offset += size;
    return static_cast<ssize_t>(size);
}

int host_ftruncate(int fd, off_t length)
{
    const Descriptor *descriptor = find_descriptor(fd);
    if (!can_write(descriptor))
        return fail(EBADF);
    if (length < 0)
        return fail(EINVAL);
    if (static_cast<size_t>(length) > FILE_SIZE_MAX)
        return fail(EFBIG);
    descriptor->file->text.resize(static_cast<size_t>(length));
    return 0;
}

int host_close(int fd)
{
    Descriptor *descriptor = find_descriptor(fd);
    if (descriptor == nullptr)
        return fail(EBADF);
    close_descriptor(*descriptor);
    return 0;
}

int host_lock(const Descriptor &descriptor, const struct flock &request)
{
    int &owner = descriptor.file->lock_owner;
    const bool is_free = owner == 0 || owner == descriptor.pid;
    if (request.l_type == F_UNLCK) {
        owner = is_free ? 0 : owner;
        return 0;
    }
    if (request.l_type == F_WRLCK && !can_write(&descriptor))
        return fail(EBADF);
    if (!is_free)
        return fail(EAGAIN);
    owner = descriptor.pid;
    return 0;
}

int host_fcntl(int fd, int command, void *argument)
{
    const Descriptor *descriptor = find_descriptor(fd);
    if (descriptor == nullptr)
        return fail(EBADF);
    switch (command) {
    case F_SETLK:
        return host_lock(*descriptor, *static_cast<const struct flock *>(argument));
    case F_GETFL:
        return descriptor->flags;
    case F_GETFD:
    case F_SETFD:
        return 0;
    default:
        return fail(EINVAL);
    }
}

/* A handler of the program's own counts as ignoring: it keeps the process alive. */
sighandler_t host_signal(int number, sighandler_t handler)
{
    if (number <= 0 || number > SIGRTMAX || number == SIGKILL || number == SIGSTOP) {
        errno = EINVAL;
        return SIG_ERR;
    }
    return process_ignore_signal(number, handler != SIG_DFL) ? SIG_IGN : SIG_DFL;
}

/* Announces a POSIX call; nonzero, errno set, when it is to fail. */
template <typename Arguments> int announce(const char *name, Arguments &&arguments)
{
    const int fault = call_enter(name, arguments);
    return fault == 0 ? 0 : fail(fault);
}

std::string fd_text(int fd)
{
    return "fd=" + std::to_string(fd);
}

/* Counts one allocation of the program; true when it is to fail. */
bool allocation_fails(size_t size)
{
    if (call_detail::platform_runs)
        return false;
    call_detail::allocations.count++;
    if (!call_detail::allocations.is_watched || !call_detail::allocation_is_refused(size))
        return false;
    errno = ENOMEM;
    return true;
}

} // namespace

std::optional<std::string> host_file(const std::string &path)
{
    const File *file = find_file(path);
    return file == nullptr ? std::nullopt : std::optional(file->text);
}

void host_file_write(const std::string &path, std::string_view text)
{
    make_file(path).text = text;
}

void host_file_remove(const std::string &path)
{
    host.files.erase(path);
}

void host_file_lock(const std::string &path, int pid)
{
    make_file(path).lock_owner = pid;
}

int host_file_lock_owner(const std::string &path)
{
    const File *file = find_file(path);
    return file == nullptr ? 0 : file->lock_owner;
}

void host_process_ended(int pid)
{
    for (Descriptor &descriptor : host.descriptors) {
        if (descriptor.file != nullptr && descriptor.pid == pid)
            close_descriptor(descriptor);
    }
    for (const auto &[path, file] : host.files) {
        if (file->lock_owner == pid)
            file->lock_owner = 0;
    }
}

void host_reset()
{
    host = {};
}

} // namespace sim

/*
 * The redirected functions. They run in every program that links the simulator,
 * from its first constructor on; until a process runs they touch nothing that
 * is not constant-initialised.
 */
extern "C" {

int __real_open(const char *path, int flags, ...);
ssize_t __real_read(int fd, void *buffer, size_t size);
ssize_t __real_write(int fd, const void *buffer, size_t size);
int __real_ftruncate(int fd, off_t length);
int __real_close(int fd);
int __real_fcntl(int fd, int command, ...);
pid_t __real_getpid(void);
sighandler_t __real_signal(int number, sighandler_t handler);
int __real_sigaction(int number, const struct sigaction *action, struct sigaction *before);
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);

int __wrap_open(const char *path, int flags, ...);
int __wrap_open64(const char *path, int flags, ...);
ssize_t __wrap_read(int fd, void *buffer, size_t size);
ssize_t __wrap_write(int fd, const void *buffer, size_t size);
int __wrap_ftruncate(int fd, off_t length);
int __wrap_ftruncate64(int fd, off_t length);
int __wrap_close(int fd);
int __wrap_fcntl(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...);
pid_t __wrap_getpid(void);
sighandler_t __wrap_signal(int number, sighandler_t handler);
int __wrap_sigaction(int number, const struct sigaction *action, struct sigaction *before);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
}

static_assert(sizeof(off_t) == 8, "open64 and its kin are the same functions");

namespace sim
{

namespace
{

int open_either(const char *path, int flags, mode_t mode)
{
    if (!program_calls())
        return __real_open(path, flags, mode);
    const PlatformScope scope;
    const int refused = announce("open", [&] { return "path=" + std::string(path); });
    return refused != 0 ? refused : host_open(path, flags);
}

int ftruncate_either(int fd, off_t length)
{
    if (!program_calls())
        return __real_ftruncate(fd, length);
    const PlatformScope scope;
    const int refused =
        announce("ftruncate", [&] { return fd_text(fd) + " length=" + std::to_string(length); });
    return refused != 0 ? refused : host_ftruncate(fd, length);
}

int fcntl_either(int fd, int command, void *argument)
{
    if (!program_calls() || fd < FIRST_DESCRIPTOR)
        return __real_fcntl(fd, command, argument);
    const PlatformScope scope;
    const int refused =
        announce("fcntl", [&] { return fd_text(fd) + " command=" + std::to_string(command); });
    return refused != 0 ? refused : host_fcntl(fd, command, argument);
}

/* Whether an open() with these flags has a third argument. */
bool has_mode(int flags)
{
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

} // namespace

} // namespace sim

int __wrap_open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = sim::has_mode(flags) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return sim::open_either(path, flags, mode);
}

int __wrap_open64(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = sim::has_mode(flags) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return sim::open_either(path, flags, mode);
}

ssize_t __wrap_read(int fd, void *buffer, size_t size)
{
    if (!sim::program_calls() || fd < sim::FIRST_DESCRIPTOR)
        return __real_read(fd, buffer, size);
    const sim::PlatformScope scope;
    const int refused =
        sim::announce("read", [&] { return sim::fd_text(fd) + " size=" + std::to_string(size); });
    return refused != 0 ? refused : sim::host_read(fd, buffer, size);
}

ssize_t __wrap_write(int fd, const void *buffer, size_t size)
{
    if (!sim::program_calls() || fd < sim::FIRST_DESCRIPTOR)
        return __real_write(fd, buffer, size);
    const sim::PlatformScope scope;
    const int refused =
        sim::announce("write", [&] { return sim::fd_text(fd) + " size=" + std::to_string(size); });
    return refused != 0 ? refused : sim::host_write(fd, buffer, size);
}

int __wrap_ftruncate(int fd, off_t length)
{
    return sim::ftruncate_either(fd, length);
}

int __wrap_ftruncate64(int fd, off_t length)
{
    return sim::ftruncate_either(fd, length);
}

int __wrap_close(int fd)
{
    if (!sim::program_calls() || fd < sim::FIRST_DESCRIPTOR)
        return __real_close(fd);
    const sim::PlatformScope scope;
    const int refused = sim::announce("close", [&] { return sim::fd_text(fd); });
    return refused != 0 ? refused : sim::host_close(fd);
}

int __wrap_fcntl(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return sim::fcntl_either(fd, command, argument);
}

int __wrap_fcntl64(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return sim::fcntl_either(fd, command, argument);
}

pid_t __wrap_getpid(void)
{
    if (!sim::program_calls())
        return __real_getpid();
    const sim::PlatformScope scope;
    const int refused = sim::announce("getpid", [] { return std::string(); });
    return refused != 0 ? refused : sim::process_pid();
}

sighandler_t __wrap_signal(int number, sighandler_t handler)
{
    if (!sim::program_calls())
        return __real_signal(number, handler);
    const sim::PlatformScope scope;
    if (sim::announce("signal", [&] { return "number=" + std::to_string(number); }) != 0)
        return SIG_ERR;
    return sim::host_signal(number, handler);
}

int __wrap_sigaction(int number, const struct sigaction *action, struct sigaction *before)
{
    if (!sim::program_calls())
        return __real_sigaction(number, action, before);
    const sim::PlatformScope scope;
    if (sim::announce("sigaction", [&] { return "number=" + std::to_string(number); }) != 0)
        return -1;
    const sighandler_t was =
        sim::host_signal(number, action == nullptr ? SIG_DFL : action->sa_handler);
    if (was == SIG_ERR)
        return -1;
    if (action == nullptr)
        sim::host_signal(number, was);
    if (before != nullptr) {
        *before = {};
        before->sa_handler = was;
    }
    return 0;
}

void *__wrap_malloc(size_t size)
{
    return sim::allocation_fails(size) ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size)
{
    return sim::allocation_fails(count * size) ? nullptr : __real_calloc(count, size);
}
