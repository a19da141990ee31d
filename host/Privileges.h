#pragma once

#include <string>

// What a run keeps of the privilege it was started with. Everything else is given up before the
// run begins, while the process has one thread: capabilities belong to threads on Linux, and a
// thread starts with those of the thread that makes it, so the capture thread and the
// scheduler's thread end up with exactly this set.
struct RunPrivileges {
    std::string user;       // switch to this user (and its groups) for the run; empty: stay
    bool bDevices = false;  // opens network devices, now and again later (CAP_NET_RAW)
    bool bRealtime = false; // starts a thread at realtime priority (CAP_SYS_NICE)
};

// Whether the process runs with more privilege than its user (file capabilities, setuid or
// setgid): the kernel's secure-execution flag.
bool RunsPrivileged();

// The user named, for --user: false when there is none.
bool UserExists(const std::string& name);

// Gives up all the run does not need: switches to the user, keeps the capabilities named (and,
// for root staying root, overriding file permissions), empties the inheritable, ambient and
// bounding sets and sets no-new-privileges, so that nothing is regained. False, having said why
// in the name of `command`, when that cannot be done.
bool GiveUpPrivileges(const RunPrivileges& run, const std::string& command);

// Whether a privileged process may load `path` as a plug-in: a file in `installedFolder`, or a
// file that only root can write in folders that only root can write. When not, `why` says so.
bool IsTrustedPlugin(const std::string& path, const std::string& installedFolder, std::string& why);
