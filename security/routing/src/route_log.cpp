// route_log.cpp - the one logging step, and the stand-alone debug file.
//
// The gates are tested in route_log.h, where the caller is; what is here runs only behind an open one.
#include "route_log.h"

#include <cstdarg>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
constexpr char DEBUG_FILE[] = "/tmp/routemgr.dbg";
std::FILE *debug_stream; // opened on first use, never closed

// In /tmp anyone could have planted something: a link is not followed, a pipe not waited for, a file of another user
// not written. So the file is emptied only after it has been judged.
std::FILE *open_debug_file()
{
    const int fd = open(DEBUG_FILE, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0)
        return nullptr;
    struct stat st = {};
    const bool is_ours = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid() && st.st_nlink == 1;
    std::FILE *stream = is_ours && ftruncate(fd, 0) == 0 ? fdopen(fd, "w") : nullptr;
    if (stream == nullptr)
        close(fd);
    return stream;
}
} // namespace

void routemgr_mydebug(int, const char *format, ...)
{
    char text[1024];
    va_list args;
    va_start(args, format);
    (void)std::vsnprintf(text, sizeof text, format, args); // a longer line is cut
    va_end(args);
    if (debug_stream == nullptr)
        debug_stream = open_debug_file();
    if (debug_stream == nullptr) {
        std::printf("Couldn't open %s for writing!\n", DEBUG_FILE);
        return;
    }
    std::fputs(text, debug_stream);
    std::fflush(debug_stream);
    std::fputs(text, stdout);
}
