#pragma once

#include "support/WaitableList.h"

#include <kt/MyPrintf.h>

#include <chrono>
#include <string>
#include <vector>

struct LogLine {
    std::chrono::steady_clock::time_point when;
    std::string text;
};

// Collects what the code under test prints through Kt::MyPrintf, exactly as formatted, with the
// moment each line was printed.
class LogCapture : public WaitableList<LogLine> {
public:
    LogCapture()
    {
        previous = Kt::SetLogSink([this](const std::string& text) { Add({std::chrono::steady_clock::now(), text}); });
    }
    ~LogCapture() { Kt::SetLogSink(previous); }

    std::vector<std::string> Take()
    {
        std::vector<std::string> texts;
        for (const LogLine& line : WaitableList::Take())
            texts.push_back(line.text);
        return texts;
    }

    // Waits for `count` lines that begin with `prefix`, and returns those there are by then.
    std::vector<LogLine> WaitFor(const std::string& prefix, size_t count, std::chrono::steady_clock::duration timeout)
    {
        std::vector<LogLine> found;
        WaitUntil(
            [&](const std::vector<LogLine>& lines) {
                found.clear();
                for (const LogLine& line : lines)
                    if (line.text.rfind(prefix, 0) == 0)
                        found.push_back(line);
                return found.size() >= count;
            },
            timeout);
        return found;
    }

private:
    Kt::LogSink previous;
};
