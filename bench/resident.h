// Bytes of the process that are resident.
#pragma once

#include <fstream>
#include <string>

namespace Bench
{

// Those of the program's own code and of its files apart; the kernel counts them page by page.
inline double ResidentBytes()
{
    std::ifstream file("/proc/self/smaps_rollup");
    for (std::string word; file >> word;)
    {
        double kibibytes = 0.0;
        if (word == "Anonymous:" && file >> kibibytes)
            return kibibytes * 1024.0;
    }
    return 0.0;
}

// What one side of a row holds, among others in the process: the sum of what its own work added and gave back.
class CResident
{
public:
    template <typename _Work>
    void Follow(_Work work)
    {
        const double before = ResidentBytes();
        work();
        m_Bytes += ResidentBytes() - before;
    }
    double Bytes() const { return m_Bytes; }

private:
    double m_Bytes = 0.0;
};

} // namespace Bench
