#include "Privileges.h"

#include <grp.h>
#include <pwd.h>
#include <sys/auxv.h>
#include <sys/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using Capabilities = std::unique_ptr<std::remove_pointer_t<cap_t>, int (*)(void*)>;

Capabilities CurrentCapabilities()
{
    return Capabilities(cap_get_proc(), cap_free);
}

bool Permitted(cap_t capabilities, cap_value_t capability)
{
    cap_flag_value_t value = CAP_CLEAR;
    return capabilities && cap_get_flag(capabilities, capability, CAP_PERMITTED, &value) == 0 && value == CAP_SET;
}

// The threads of this process as the kernel counts them; 0 where /proc cannot tell.
int ThreadCount()
{
    std::FILE* status = std::fopen("/proc/self/status", "re");
    if (!status)
        return 0;
    int threads = 0;
    char line[256];
    while (std::fgets(line, sizeof line, status) && std::sscanf(line, "Threads: %d", &threads) != 1)
        ;
    std::fclose(status);
    return threads;
}

// Counted before main: the threads that are not ours (an emulator's own, under qemu-user).
const int threadsBeforeMain = ThreadCount();

bool Refuse(const std::string& command, const std::string& why)
{
    std::fprintf(stderr, "lyrcap %s: %s\n", command.c_str(), why.c_str());
    return false;
}

// Sets user, group and supplementary groups, real, effective and saved alike. libcap keeps the
// permitted capabilities across the change, for the caller to narrow.
bool SwitchTo(uid_t uid, gid_t gid, const std::vector<gid_t>& groups, std::string& error)
{
    if (cap_setgroups(gid, groups.size(), groups.data()) != 0 || cap_setuid(uid) != 0) {
        error = std::strerror(errno);
        return false;
    }
    uid_t real = 0, effective = 0, saved = 0;
    gid_t realGroup = 0, effectiveGroup = 0, savedGroup = 0;
    if (getresuid(&real, &effective, &saved) != 0 || getresgid(&realGroup, &effectiveGroup, &savedGroup) != 0 ||
        real != uid || effective != uid || saved != uid || realGroup != gid || effectiveGroup != gid ||
        savedGroup != gid) {
        error = "the system kept another user or group";
        return false;
    }
    return true;
}

bool SwitchToUser(const std::string& name, std::string& error)
{
    const passwd* entry = getpwnam(name.c_str());
    if (!entry) {
        error = "no user " + name;
        return false;
    }
    const uid_t uid = entry->pw_uid;
    const gid_t gid = entry->pw_gid;
    int count = 0;
    getgrouplist(name.c_str(), gid, nullptr, &count);
    std::vector<gid_t> groups(static_cast<std::size_t>(count > 0 ? count : 1));
    if (getgrouplist(name.c_str(), gid, groups.data(), &count) < 0) {
        error = "cannot tell the groups of " + name;
        return false;
    }
    groups.resize(static_cast<std::size_t>(count));
    return SwitchTo(uid, gid, groups, error);
}

// A setuid or setgid program goes back to the user who started it: what it writes, it writes as
// that user, never as the program's owner.
bool SwitchToRealUser(std::string& error)
{
    const int count = getgroups(0, nullptr);
    std::vector<gid_t> groups(static_cast<std::size_t>(count > 0 ? count : 0));
    if (count < 0 || getgroups(count, groups.data()) != count) {
        error = std::strerror(errno);
        return false;
    }
    return SwitchTo(getuid(), getgid(), groups, error);
}

// Drops every capability from the bounding set, so that no program this process could start
// gains one: it needs CAP_SETPCAP, which only root has; other runs cannot gain any anyway, once
// no-new-privileges is set.
bool ClearBoundingSet(std::string& error)
{
    Capabilities raised = CurrentCapabilities();
    const cap_value_t setPcap = CAP_SETPCAP;
    if (!Permitted(raised.get(), setPcap))
        return true;
    if (cap_set_flag(raised.get(), CAP_EFFECTIVE, 1, &setPcap, CAP_SET) != 0 || cap_set_proc(raised.get()) != 0) {
        error = std::strerror(errno);
        return false;
    }
    for (cap_value_t capability = 0; capability < static_cast<cap_value_t>(cap_max_bits()); ++capability) {
        if (cap_get_bound(capability) == 1 && cap_drop_bound(capability) != 0) {
            error = std::strerror(errno);
            return false;
        }
    }
    return true;
}

} // namespace

bool RunsPrivileged()
{
    return getauxval(AT_SECURE) != 0;
}

bool UserExists(const std::string& name)
{
    return getpwnam(name.c_str()) != nullptr;
}

bool GiveUpPrivileges(const RunPrivileges& run, const std::string& command)
{
    // Changes made now reach only the calling thread.
    const int threads = ThreadCount();
    if (threads > threadsBeforeMain)
        return Refuse(command, "privileges must be given up before any thread starts, and " +
                                   std::to_string(threads - threadsBeforeMain) + " more run already");
    const bool bRootRun = getuid() == 0 && geteuid() == 0;
    std::string error;
    if (!run.user.empty()) {
        // Only root may choose whom the run becomes: a setuid copy must not let a user become another.
        if (getuid() != 0)
            return Refuse(command, "--user " + run.user + " needs root: only root runs as another user");
        if (!SwitchToUser(run.user, error))
            return Refuse(command, "cannot switch to user " + run.user + ": " + error);
    } else if (RunsPrivileged() && (geteuid() != getuid() || getegid() != getgid())) {
        if (!SwitchToRealUser(error))
            return Refuse(command, "cannot go back to the user who started lyrcap: " + error);
    }

    std::vector<cap_value_t> wanted;
    if (run.bDevices)
        wanted.push_back(CAP_NET_RAW);
    if (run.bRealtime)
        wanted.push_back(CAP_SYS_NICE);
    // Root staying root still reads and writes files wherever root may, as users expect of it.
    if (bRootRun && run.user.empty())
        wanted.push_back(CAP_DAC_OVERRIDE);
    const Capabilities before = CurrentCapabilities();
    std::vector<cap_value_t> kept;
    for (cap_value_t capability : wanted)
        if (Permitted(before.get(), capability))
            kept.push_back(capability);

    if (!ClearBoundingSet(error))
        return Refuse(command, "cannot clear the capability bounding set: " + error);
    if (CAP_AMBIENT_SUPPORTED() && cap_reset_ambient() != 0)
        return Refuse(command, std::string("cannot clear the ambient capabilities: ") + std::strerror(errno));
    const Capabilities narrow(cap_init(), cap_free);
    if (!narrow || (!kept.empty() && (cap_set_flag(narrow.get(), CAP_PERMITTED, static_cast<int>(kept.size()), kept.data(), CAP_SET) != 0 ||
                                      cap_set_flag(narrow.get(), CAP_EFFECTIVE, static_cast<int>(kept.size()), kept.data(), CAP_SET) != 0)) ||
        cap_set_proc(narrow.get()) != 0)
        return Refuse(command, std::string("cannot give up capabilities: ") + std::strerror(errno));
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        return Refuse(command, std::string("cannot set no-new-privileges: ") + std::strerror(errno));
    const Capabilities after = CurrentCapabilities();
    if (!after || cap_compare(after.get(), narrow.get()) != 0)
        return Refuse(command, "the system kept capabilities that were given up");
    return true;
}

bool IsTrustedPlugin(const std::string& path, const std::string& installedFolder, std::string& why)
{
    char* resolved = realpath(path.c_str(), nullptr);
    if (!resolved) {
        why = std::strerror(errno);
        return false;
    }
    const std::string file = resolved;
    std::free(resolved);
    char* folder = realpath(installedFolder.c_str(), nullptr);
    const std::string installed = folder ? std::string(folder) + "/" : "";
    std::free(folder);
    if (!installed.empty() && file.rfind(installed, 0) == 0)
        return true;
    // The file itself, then every folder up to the root: whoever may write one of them could
    // put other code in its place.
    for (std::string step = file;; step.erase(step.rfind('/'))) {
        const std::string shown = step.empty() ? "/" : step;
        struct stat info{};
        if (stat(shown.c_str(), &info) != 0) {
            why = shown + ": " + std::strerror(errno);
            return false;
        }
        if (info.st_uid != 0) {
            why = shown + " belongs to a user other than root";
            return false;
        }
        if (info.st_mode & (S_IWGRP | S_IWOTH)) {
            why = shown + " may be written by others than root";
            return false;
        }
        if (step.empty())
            break;
    }
    return true;
}
