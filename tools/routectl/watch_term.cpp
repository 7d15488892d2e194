// watch_term.cpp - the alternate screen, keys without echo, and back.
//
// Plain ANSI sequences. Always: a picture is one write, unless the terminal takes only a part of it.
#include "watch_term.h"

#include <cerrno>

#include <sys/ioctl.h>
#include <unistd.h>

namespace
{
constexpr const char *ENTER = "\033[?1049h\033[?25l\033[2J", *LEAVE = "\033[0m\033[?25h\033[?1049l";

bool write_all(const std::string &text)
{
    for (std::size_t at = 0; at < text.size();) {
        const ssize_t written = write(STDOUT_FILENO, text.data() + at, text.size() - at);
        if (written < 0 && errno != EINTR && errno != EAGAIN)
            return false;
        at += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
    return true;
}
} // namespace

watch_term::~watch_term() { (void)watch_term_leave(*this); } // nothing to do about a terminal that has gone

bool watch_term_enter(watch_term &term)
{
    if (term.is_entered)
        return true;
    term.has_keys = isatty(STDIN_FILENO) == 1 && tcgetattr(STDIN_FILENO, &term.former) == 0;
    if (term.has_keys) {
        termios mode = term.former;
        mode.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        mode.c_cc[VMIN] = 1;
        mode.c_cc[VTIME] = 0;
        term.has_keys = tcsetattr(STDIN_FILENO, TCSANOW, &mode) == 0;
    }
    term.is_entered = true;
    return write_all(ENTER);
}

bool watch_term_leave(watch_term &term)
{
    if (!term.is_entered)
        return true;
    term.is_entered = false;
    const bool is_written = write_all(LEAVE);
    return (!term.has_keys || tcsetattr(STDIN_FILENO, TCSAFLUSH, &term.former) == 0) && is_written;
}

bool watch_term_show(const std::vector<std::string> &lines)
{
    // A line is erased before it is written: an erasure after its last column would erase that column too.
    // The last one clears what is below it, and no line end follows it, which would scroll a full screen.
    std::string text = "\033[H";
    for (std::size_t i = 0; i < lines.size(); ++i)
        text += std::string(i == 0 ? "" : "\r\n") + (i + 1 == lines.size() ? "\033[J" : "\033[2K") + lines[i];
    return write_all(text);
}

watch_size watch_term_size()
{
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        return WATCH_SIZE;
    return {size.ws_col, size.ws_row};
}
