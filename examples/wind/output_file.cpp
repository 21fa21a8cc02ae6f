#include "output_file.h"

#include <unistd.h>

namespace Wind
{
COutputFile::COutputFile(const std::string &path)
    : m_Path(path)
    , m_TemporaryPath(path + "." + std::to_string(getpid()) + ".tmp")
    , m_File(std::fopen(m_TemporaryPath.c_str(), "wb"))
{
}

COutputFile::~COutputFile()
{
    if (m_File == nullptr)
        return;
    std::fclose(m_File);
    std::remove(m_TemporaryPath.c_str());
}

bool COutputFile::Commit(std::string &outError)
{
    if (m_File == nullptr)
        return outError = m_Path + " cannot be written", false;
    const bool written = std::ferror(m_File) == 0;
    const bool closed = std::fclose(m_File) == 0;
    m_File = nullptr;
    if (written && closed && std::rename(m_TemporaryPath.c_str(), m_Path.c_str()) == 0)
        return true;
    std::remove(m_TemporaryPath.c_str());
    return outError = m_Path + " cannot be written", false;
}
} // namespace Wind
