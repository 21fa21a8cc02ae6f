#pragma once
// A file that appears whole or not at all: it is written under a temporary name beside its place, and Commit moves it
// there.

#include <tz_defs.h>

#include <cstdio>
#include <string>

namespace Wind
{
class COutputFile : Tessaly::CNonCopyable
{
public:
    explicit COutputFile(const std::string &path);
    ~COutputFile(); // without a Commit: nothing is left

    std::FILE *Handle() const { return m_File; } // null where it could not be opened

    // Closes the file and gives it its name. False: `outError` names it in one line, and nothing is left of it.
    bool Commit(std::string &outError);

private:
    std::string m_Path, m_TemporaryPath;
    std::FILE *m_File;
};
} // namespace Wind
