#include <kt/MyPrintf.h>

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <vector>

namespace Kt {

namespace {

std::mutex& SinkMutex()
{
    static std::mutex mutex;
    return mutex;
}

LogSink& Sink()
{
    static LogSink sink;
    return sink;
}

} // namespace

LogSink SetLogSink(LogSink sink)
{
    std::lock_guard<std::mutex> lock(SinkMutex());
    LogSink previous = std::move(Sink());
    Sink() = std::move(sink);
    return previous;
}

int MyPrintf(const char* format, ...)
{
    char small[512];
    std::va_list args;
    va_start(args, format);
    std::va_list again;
    va_copy(again, args);
    int length = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (length < 0) {
        va_end(again);
        return length;
    }
    std::string text;
    if (static_cast<std::size_t>(length) < sizeof small) {
        text.assign(small, static_cast<std::size_t>(length));
    } else {
        std::vector<char> large(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(large.data(), large.size(), format, again);
        text.assign(large.data(), static_cast<std::size_t>(length));
    }
    va_end(again);

    std::lock_guard<std::mutex> lock(SinkMutex());
    if (Sink()) {
        Sink()(text);
        return length;
    }
    // One write per line, so that lines from several threads never interleave.
    std::string line = text;
    if (line.empty() || line.back() != '\n')
        line += '\n';
    ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
    return length;
}

} // namespace Kt
