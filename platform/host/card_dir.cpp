// card_dir.cpp - the card directory: made, checked, and the sockets, locks and files in it.
//
// A process that can enter the directory can speak for every process of the card, so the directory is refused unless
// its owner alone can. A socket has a lock file beside it, because the socket of a dead process looks like that of a
// live one; the lock ends with its process, however that ends.
// Always: nothing of the card stays open over an exec; a socket is replaced only under its lock; a new file appears
// under its name complete and with all its blocks, so a full disk is an error here and never a fault in a later store;
// the descriptors 0 to 2 are open before anything of the card is.
// Elsewhere: what is sent through the sockets (mts.cpp, tnrpc_server.cpp, scp.cpp), the settings (card_conf.cpp).
#include "card_dir.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "card_files.h"

namespace
{
constexpr unsigned LOCK_WAIT_MS = 100, LOCK_STEP_MS = 2;
constexpr int LISTEN_BACKLOG = 128;

// A process may be started with its standard descriptors closed. They are opened before main, so that text meant for
// standard output or error never goes into a lock or a memory that got its number.
[[gnu::constructor]] void open_standard_descriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) < 0) // opens the lowest that is closed: this one
            return;
}

// Locks that this process holds, by the socket's name. Never destroyed: the clean-up at exit still asks.
std::vector<std::string> &held_locks()
{
    static auto *const names = new std::vector<std::string>;
    return *names;
}

void refuse(const std::string &path, const char *why)
{
    (void)std::fprintf(stderr, "%s: %s: %s; refused\n", program_invocation_short_name, path.c_str(), why);
}

// Makes a folder of mode 0700 whatever the umask. Returns 0 also when it was there; else -1 with errno.
int make_folder(const std::string &path)
{
    if (mkdir(path.c_str(), 0700) == 0)
        return chmod(path.c_str(), 0700);
    return errno == EEXIST ? 0 : -1;
}

// Gives a folder of the card directory mode 0700. What stands at its name and is no folder is left as it is: a link
// could lead out of the card. Returns 0, or -1 with errno.
int close_folder(const std::string &path)
{
    struct stat st = {};
    if (lstat(path.c_str(), &st) != 0)
        return -1;
    return S_ISDIR(st.st_mode) && (st.st_mode & 07777) != 0700 ? chmod(path.c_str(), 0700) : 0;
}

// Whether the folder at `path` is ours alone; says why not. A link to it must be ours as well: another user could
// point it elsewhere once it has been judged.
bool is_ours_alone(const std::string &path)
{
    struct stat link = {};
    if (lstat(path.c_str(), &link) == 0 && S_ISLNK(link.st_mode) && link.st_uid != geteuid()) {
        const std::string why =
            "is a link of uid " + std::to_string(link.st_uid) + ", not " + std::to_string(geteuid());
        refuse(path, why.c_str());
        return false;
    }
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    struct stat st = {};
    if (fd < 0 || fstat(fd, &st) != 0) {
        refuse(path, std::strerror(errno));
        if (fd >= 0)
            (void)close(fd);
        return false;
    }
    (void)close(fd);
    if (st.st_uid != geteuid()) {
        const std::string why = "owned by uid " + std::to_string(st.st_uid) + ", not " + std::to_string(geteuid());
        refuse(path, why.c_str());
        return false;
    }
    if ((st.st_mode & 077) != 0) {
        char why[64];
        (void)std::snprintf(why, sizeof why, "mode %04o lets group or others in, not 0700",
                            static_cast<unsigned>(st.st_mode & 07777));
        refuse(path, why);
        return false;
    }
    return true;
}

std::string find_directory()
{
    const char *const set = std::getenv(CARD_DIR_VARIABLE);
    std::string path = set != nullptr ? set : CARD_DIR_DEFAULT;
    if (path.empty() || path.size() > CARD_DIR_PATH_MAX) {
        refuse(path, path.empty() ? "CARD_DIR is empty" : "path is over 64 bytes");
        return {};
    }
    if (make_folder(path) != 0) {
        refuse(path, std::strerror(errno));
        return {};
    }
    if (!is_ours_alone(path))
        return {};
    for (const char *folder : CARD_FOLDERS) {
        const std::string inner = path + "/" + folder;
        if (make_folder(inner) != 0 || close_folder(inner) != 0) {
            refuse(inner, std::strerror(errno));
            return {};
        }
    }
    return path;
}

// Takes the lock of `name`, waiting a little for a process that only looks at it. Returns its descriptor or -1.
int take_lock(const std::string &path)
{
    const int fd = open((path + LOCK_SUFFIX).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        return -1;
    (void)fchmod(fd, 0600); // a strict umask may have taken our own bits away
    for (unsigned waited = 0; flock(fd, LOCK_EX | LOCK_NB) != 0; waited += LOCK_STEP_MS) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || waited >= LOCK_WAIT_MS) {
            const int error = errno;
            (void)close(fd);
            errno = error;
            return -1;
        }
        const timespec step = {0, LOCK_STEP_MS * 1000000L};
        (void)nanosleep(&step, nullptr);
    }
    return fd;
}

// Binds a fresh socket at `path`, whose lock is held. Returns it, or -1 with errno.
int bind_socket(int type, const std::string &path, const sockaddr_un &address)
{
    const int fd = socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    (void)fchmod(fd, 0600); // the mode that the bind gives the name, so it never stands there with another
    const bool replaced = unlink(path.c_str()) == 0 || errno == ENOENT;
    if (replaced && bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
        chmod(path.c_str(), 0600) == 0 && (type == SOCK_DGRAM || listen(fd, LISTEN_BACKLOG) == 0))
        return fd;
    const int error = errno;
    (void)close(fd);
    errno = error;
    return -1;
}

// Makes the file at `path` anew, allocated whole, and puts it there in one step: who has an older one mapped keeps it.
int make_file(const std::string &path, std::size_t bytes)
{
    const std::string fresh = path + ".new";
    (void)unlink(fresh.c_str()); // one that an earlier process did not finish
    const int fd = open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        return -1;
    (void)fchmod(fd, 0600);
    int error = posix_fallocate(fd, 0, static_cast<off_t>(bytes));
    if (error == 0 && rename(fresh.c_str(), path.c_str()) != 0)
        error = errno;
    if (error == 0)
        return fd;
    (void)close(fd);
    (void)unlink(fresh.c_str());
    errno = error;
    return -1;
}

// Opens the file at `path` when it is a plain file of `bytes` bytes. Returns the descriptor; -1 with errno ENOENT when
// it has to be made anew, with another errno when it must not be touched.
int open_whole_file(const std::string &path, std::size_t bytes)
{
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0)
        return -1;
    struct stat st = {};
    int error = fstat(fd, &st) == 0 ? 0 : errno;
    if (error == 0 && !S_ISREG(st.st_mode))
        error = EINVAL;
    else if (error == 0 && st.st_size != static_cast<off_t>(bytes))
        error = ENOENT;
    else if (error == 0)
        error = posix_fallocate(fd, 0, static_cast<off_t>(bytes)); // one with holes could still fault
    if (error == 0) {
        (void)fchmod(fd, 0600);
        return fd;
    }
    (void)close(fd);
    errno = error;
    return -1;
}
} // namespace

const std::string &card_dir_path()
{
    static const std::string &path = *new std::string(find_directory());
    return path;
}

int card_dir_address(const char *name, sockaddr_un *address)
{
    *address = {};
    address->sun_family = AF_UNIX;
    const std::string &dir = card_dir_path();
    if (dir.empty() || dir.size() + 1 + std::strlen(name) >= sizeof address->sun_path)
        return -1;
    (void)std::snprintf(address->sun_path, sizeof address->sun_path, "%s/%s", dir.c_str(), name); // allocates nothing
    return 0;
}

int card_dir_bind(int type, const char *name)
{
    sockaddr_un address;
    if (card_dir_address(name, &address) != 0) {
        errno = EACCES;
        return -1;
    }
    const std::string path = address.sun_path;
    const int lock = take_lock(path);
    if (lock < 0)
        return -1;
    const int fd = bind_socket(type, path, address);
    if (fd < 0) {
        const int error = errno;
        (void)close(lock);
        errno = error;
        return -1;
    }
    held_locks().emplace_back(name); // the lock's descriptor is never closed: it lasts as long as the process
    return fd;
}

void card_dir_say_not_bound(const char *name)
{
    if (card_dir_path().empty())
        return;
    const char *const why = errno == EWOULDBLOCK ? "a live process holds its lock" : std::strerror(errno);
    (void)std::fprintf(stderr, "%s: %s/%s: %s; not bound\n", program_invocation_short_name, card_dir_path().c_str(),
                       name, why);
}

card_owner card_dir_owner(const char *name)
{
    for (const std::string &held : held_locks())
        if (held == name)
            return card_owner::self;
    const std::string &dir = card_dir_path();
    if (dir.empty())
        return card_owner::none;
    const int fd = open((dir + "/" + name + ".lock").c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) // only a lock that is not there has no owner for certain
        return errno == ENOENT ? card_owner::none : card_owner::other;
    // Shared, so that two processes that only look do not take each other for an owner.
    const bool free = flock(fd, LOCK_SH | LOCK_NB) == 0;
    (void)close(fd);
    return free ? card_owner::none : card_owner::other;
}

int card_dir_file(const char *name, std::size_t bytes, bool *made)
{
    *made = false;
    const std::string &dir = card_dir_path();
    if (dir.empty())
        return -1;
    const std::string path = dir + "/" + name;
    int fd = open_whole_file(path, bytes);
    if (fd < 0 && errno == ENOENT) {
        fd = make_file(path, bytes);
        *made = fd >= 0;
    }
    if (fd < 0)
        (void)std::fprintf(stderr, "%s: %s: %s; not opened\n", program_invocation_short_name, path.c_str(),
                           std::strerror(errno));
    return fd;
}
