#pragma once

#include <cstdlib>
#include <string>

// A fresh directory under /tmp, removed with everything in it at the end of the test.
class TempDir {
public:
    TempDir()
    {
        char pattern[] = "/tmp/lyrtest.XXXXXX";
        const char* made = mkdtemp(pattern);
        path = made ? made : "/tmp";
    }
    ~TempDir()
    {
        if (path != "/tmp")
            std::system(("rm -rf '" + path + "'").c_str());
    }
    std::string File(const std::string& name) const { return path + "/" + name; }

    std::string path;
};
