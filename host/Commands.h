#pragma once

#include <string>
#include <vector>

// One entry per command of the host tool; main dispatches on the name.
struct Command {
    const char* name;
    const char* summary;
    int (*run)(const std::vector<std::string>& args);
};

int RunInfo(const std::vector<std::string>& args);
int RunReplay(const std::vector<std::string>& args);
int RunSend(const std::vector<std::string>& args);
int RunConvert(const std::vector<std::string>& args);
int RunCapture(const std::vector<std::string>& args);
int RunListDevices(const std::vector<std::string>& args);

const std::vector<Command>& AllCommands();
