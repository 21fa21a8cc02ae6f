#pragma once
// A file that is written completely or not at all: it is written under a temporary name in the same folder, and Commit
// renames it.

#include <tz_defs.h>

#include <cstdio>
#include <string>

namespace Wind
{
class COutputFile : Tessaly::CNonCopyable
{
public:
    explicit COutputFile(const std::string &path);
    ~COutputFile(); // without a Commit: deletes the temporary file

    std::FILE *Handle() const { return m_File; } // null if it could not be opened

    // Closes and renames the file. False: outError names it, and the temporary file is deleted.
    bool Commit(std::string &outError);

private:
    std::string m_Path, m_TemporaryPath;
    std::FILE *m_File;
};
} // namespace Wind
