#pragma once

#include <kt/MyPrintf.h>

#include <mutex>
#include <string>
#include <vector>

// Collects what the code under test prints through Kt::MyPrintf, exactly as formatted.
class LogCapture {
public:
    LogCapture()
    {
        previous = Kt::SetLogSink([this](const std::string& text) {
            std::lock_guard<std::mutex> lock(mutex);
            lines.push_back(text);
        });
    }
    ~LogCapture() { Kt::SetLogSink(previous); }

    std::vector<std::string> Lines()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return lines;
    }
    std::vector<std::string> Take()
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<std::string> taken;
        taken.swap(lines);
        return taken;
    }

private:
    Kt::LogSink previous;
    std::mutex mutex;
    std::vector<std::string> lines;
};
