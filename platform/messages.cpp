/*
 * Messages: the log every fatal, error, warning and info message goes to,
 * optionally echoed to stderr.
 */
#include "runtime_internal.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace mirt {
using namespace rt;

namespace {

struct MessageLog {
    std::mutex mu;
    std::vector<Message> messages;
    std::atomic<bool> echo{false};
    std::atomic<FatalHandler> fatal{nullptr};
};

MessageLog *make_message_log()
{
    MessageLog *log = new MessageLog;
    /* MIRT_ECHO_MESSAGES=1 prints every message to stderr (debugging aid). */
    const char *env = std::getenv("MIRT_ECHO_MESSAGES");
    log->echo.store(env && *env && *env != '0');
    return log;
}

MessageLog &message_log()
{
    static MessageLog *log = make_message_log(); /* never destroyed: usable from static destructors */
    return *log;
}

const char *level_name(Level level)
{
    switch (level) {
    case Level::Fatal: return "fatal";
    case Level::Error: return "error";
    case Level::Warning: return "warning";
    case Level::Info: return "info";
    }
    return "?";
}

std::string vformat(const char *fmt, va_list ap)
{
    if (!fmt)
        return std::string();
    char buf[512];
    va_list copy;
    va_copy(copy, ap);
    int n = std::vsnprintf(buf, sizeof buf, fmt, copy);
    va_end(copy);
    if (n < 0)
        return std::string(fmt);
    if (static_cast<size_t>(n) < sizeof buf)
        return std::string(buf, static_cast<size_t>(n));
    std::string out(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(&out[0], out.size(), fmt, ap);
    out.resize(static_cast<size_t>(n));
    return out;
}

/* Format and log a message; returns its text. */
std::string vlog(Level level, const char *fmt, va_list ap)
{
    std::string s = vformat(fmt, ap);
    log_message(level, s);
    return s;
}

} // namespace

namespace rt {

void error(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void error(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vlog(Level::Error, fmt, ap);
    va_end(ap);
}

} // namespace rt

namespace {

void store_message(MessageLog &log, Level level, const std::string &text)
{
    std::lock_guard<std::mutex> lk(log.mu);
    log.messages.push_back(Message{level, text});
}

void echo_message(MessageLog &log, Level level, const std::string &text)
{
    if (log.echo.load(std::memory_order_relaxed))
        std::fprintf(stderr, "%s: %s\n", level_name(level), text.c_str());
}

} // namespace

void log_message(Level level, const std::string &text)
{
    MessageLog &log = message_log();
    store_message(log, level, text);
    echo_message(log, level, text);
}

void set_fatal_handler(FatalHandler handler) { message_log().fatal.store(handler); }

std::vector<Message> messages() { return locked_copy(message_log(), &MessageLog::messages); }

void clear_messages() { locked_clear(message_log(), &MessageLog::messages); }

void set_echo_messages(bool on)
{
    message_log().echo.store(on);
}

} // namespace mirt

using namespace mirt;

extern "C" {

void mi_fatal(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string s = vformat(fmt, ap);
    va_end(ap);
    MessageLog &log = message_log();
    store_message(log, Level::Fatal, s);
    if (FatalHandler handler = log.fatal.load())
        handler(s);
    echo_message(log, Level::Fatal, s);
    throw FatalError{s};
}

void mi_error(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vlog(Level::Error, fmt, ap);
    va_end(ap);
}

void mi_warning(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vlog(Level::Warning, fmt, ap);
    va_end(ap);
}

void mi_info(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vlog(Level::Info, fmt, ap);
    va_end(ap);
}

} // extern "C"
