#pragma once

#include <lyr/NetFile.h>
#include <lyr/NetInputIf.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <functional>
#include <string>

// Services that every command of the host tool shares.

// ExitDamaged: the input was damaged or cut short; what came before the damage was read (and
// written), and the damage was said.
enum ExitStatus { ExitOk = 0, ExitFailure = 1, ExitUsage = 2, ExitDamaged = 3, ExitInterrupted = 130 };

struct RunPrivileges;

// The plug-in that BeginRun loads (--plugin); without one, $LYRCAP_PLUGIN, else the installed one.
void ChoosePlugin(const std::string& path);
// Gives up the privilege that the run does not need (Privileges.h), then loads the plug-in, and
// says why when either fails. Every command calls it once its arguments are known to be good,
// before it starts a thread or opens a file.
bool BeginRun(const RunPrivileges& privileges, const std::string& command);
// The shipped sample of that name ("ethernet.pcap"), for commands run without a file.
std::string SamplePath(const std::string& name);

// A capture-file back-end from the loaded plug-in, or null with a message.
std::unique_ptr<Lyr::NetFile> CreateNetFile();
// A live-input back-end from the loaded plug-in, or null with a message.
std::unique_ptr<Lyr::NetInputIf> CreateNetInputIf();

// Ctrl-C, SIGTERM and SIGHUP set a flag that long-running commands poll; a second one while the
// flag is set kills the process as usual. SIGPIPE is ignored: a write to a reader that went away
// fails instead, and each command decides what that means.
void InstallSignalHandlers();
// Flushes standard output; false, having said why, when what the command printed there did not
// all arrive (a reader that went away, a full disk).
bool StandardOutputWritten(const std::string& command);

// Runs `start` with the calling thread at realtime priority `priority` (SCHED_FIFO; 0 leaves the
// scheduling alone), then gives the priority up again: a thread that `start` makes takes the
// scheduling of its maker. Where the system refuses, says so on standard error, naming what
// runs at ordinary priority instead.
void StartAtRealtimePriority(int priority, const std::string& what, const std::function<void()>& start);
// Puts the calling thread at realtime priority `priority` (SCHED_FIFO) from now on; 0, or the
// system's reason for refusing.
int SetRealtimePriority(int priority);
bool Interrupted();
// -q: no status lines and no progress on standard error, for the rest of the run.
void BeQuiet();
bool Quiet();

// Passes the plug-in's log lines on to standard error and counts the refused packets among them,
// since Read tells a refused packet from the end of the file only through its message. The output
// port likewise reports a port that did not open, and a frame that did not leave, only by a line.
class LogWatch {
public:
    LogWatch();
    ~LogWatch();
    std::uint64_t RefusedPackets() const { return refused; }
    std::uint64_t PortFailures() const { return portFailures; }
    std::uint64_t TransmitFailures() const { return transmitFailures; }

private:
    static constexpr std::uint64_t RepeatsShown = 10;
    std::atomic<std::uint64_t> refused{0};
    std::atomic<std::uint64_t> portFailures{0};
    std::atomic<std::uint64_t> transmitFailures{0};
};

std::string FormatMac(unsigned long long mac);
// "1.5 MB", "812 kB", "96 B".
std::string FormatBytes(double bytes);
// Prints a usage error with a pointer to --help.
int UsageError(const std::string& command, const std::string& message);
