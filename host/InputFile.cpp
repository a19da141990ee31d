#include "InputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// A file of ours alone in `folder`: unnamed where the file system allows it, else named for an
// instant and unlinked at once; readable and writable by this user only.
int PrivateFile(const std::string& folder)
{
    const int file = open(folder.c_str(), O_TMPFILE | O_RDWR | O_EXCL | O_CLOEXEC, 0600);
    if (file >= 0 || (errno != EOPNOTSUPP && errno != EISDIR))
        return file;
    std::string pattern = folder + "/lyrcap.XXXXXX";
    const int named = mkostemp(pattern.data(), O_CLOEXEC);
    if (named >= 0)
        unlink(pattern.c_str());
    return named;
}

} // namespace

InputFile::~InputFile()
{
    if (copy >= 0)
        close(copy);
}

bool InputFile::Open(const std::string& given, const char* command)
{
    name = given == "-" ? "standard input" : given;
    path = given;
    if (given != "-") {
        struct stat info{};
        // A name that is not there, or a regular file, goes to the back-end as it is: it says why
        // it cannot read it, as it does for any file.
        if (stat(given.c_str(), &info) != 0 || S_ISREG(info.st_mode) || S_ISDIR(info.st_mode))
            return true;
        const int stream = open(given.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
        if (stream < 0) {
            std::fprintf(stderr, "lyrcap %s: cannot read %s: %s\n", command, given.c_str(), std::strerror(errno));
            return false;
        }
        const bool bCopied = Spool(stream, command);
        close(stream);
        return bCopied;
    }
    // Standard input that is a regular file at its start is read where it lies.
    struct stat info{};
    if (fstat(STDIN_FILENO, &info) == 0 && S_ISREG(info.st_mode) && lseek(STDIN_FILENO, 0, SEEK_CUR) == 0) {
        path = "/proc/self/fd/0";
        return true;
    }
    return Spool(STDIN_FILENO, command);
}

bool InputFile::Spool(int from, const char* command)
{
    const char* folder = secure_getenv("TMPDIR");
    copy = PrivateFile(folder && *folder ? folder : "/var/tmp");
    if (copy < 0)
        copy = PrivateFile("/tmp");
    if (copy < 0) {
        std::fprintf(stderr, "lyrcap %s: cannot make a file to hold %s: %s\n", command, name.c_str(), std::strerror(errno));
        return false;
    }
    std::vector<char> buffer(256 * 1024);
    for (;;) {
        const ssize_t got = read(from, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            std::fprintf(stderr, "lyrcap %s: reading %s failed: %s\n", command, name.c_str(), std::strerror(errno));
            return false;
        }
        if (got == 0)
            break;
        for (ssize_t done = 0; done < got;) {
            const ssize_t put = write(copy, buffer.data() + done, static_cast<std::size_t>(got - done));
            if (put < 0 && errno == EINTR)
                continue;
            if (put < 0) {
                std::fprintf(stderr, "lyrcap %s: holding %s in a file failed: %s\n", command, name.c_str(), std::strerror(errno));
                return false;
            }
            done += put;
        }
    }
    path = "/proc/self/fd/" + std::to_string(copy);
    return true;
}
