// route_log.cpp - the one logging step, and the stand-alone debug file.
//
// The gates are tested in route_log.h, where the caller is; what is here runs only behind an open one.
#include "route_log.h"

#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "history_file.h"
#include "line_format.h"

namespace
{
// One record of the event history, as readers of the history file find it.
struct history_record {
    std::uint32_t category;        // the id
    char text[HISTORY_TEXT_BYTES]; // "<Ctx:%d>" and the message, NUL-terminated
};
static_assert(offsetof(history_record, text) == HISTORY_AT_TEXT);

// "<Ctx:%d>" and a NUL, without the way through a format: every record begins with it. Returns its length.
std::size_t put_context(char (&text)[HISTORY_TEXT_BYTES], std::uint32_t ctx)
{
    constexpr char HEAD[] = "<Ctx:";
    constexpr std::size_t DIGITS = 11; // of any number, with its sign
    std::memcpy(text, HEAD, sizeof HEAD - 1);
    char *const number = text + sizeof HEAD - 1;
    char *const end = std::to_chars(number, number + DIGITS, static_cast<int>(ctx)).ptr;
    std::memcpy(end, ">", 2);
    return static_cast<std::size_t>(end + 1 - text);
}

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

void route_log_history(std::uint32_t category, std::uint32_t ctx, const char *format, ...)
{
    history_record record;
    record.category = category;
    const std::size_t used = put_context(record.text, ctx), room = HISTORY_TEXT_BYTES - used;
    va_list args;
    va_start(args, format);
    const int made = line_vformat(record.text + used, room, format, args);
    va_end(args);
    const std::size_t wanted = made < 0 ? 0 : static_cast<std::size_t>(made);
    const std::size_t length = used + (wanted < room ? wanted : room - 1); // a longer message is cut
    (void)sdwrap_hist_event(ROUTE_HIST_EVENT, length + 5, &record);
}

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
