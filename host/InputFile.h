#pragma once

#include <string>

// A capture file to read, as the back-ends need one: a regular file, which the capture-file
// back-end opens twice (once for its first packet, once to read) and the host walks once more.
// Standard input ("-"), a FIFO or any other stream is first copied into a private file that no
// other process can open (unnamed, in $TMPDIR or else /var/tmp, which lie on disk where /tmp may
// lie in memory), so that a stream of any length costs no more memory than a buffer; the copy
// goes with this object.
class InputFile {
public:
    InputFile() = default;
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // False, having said why in the name of `command`, when the input cannot be read or copied.
    bool Open(const std::string& name, const char* command);

    // Where the back-end and libpcap open it.
    const std::string& Path() const { return path; }
    // How it is named to people: the name given, or "standard input".
    const std::string& Name() const { return name; }

private:
    bool Spool(int from, const char* command);

    std::string name;
    std::string path;
    int copy = -1;
};
