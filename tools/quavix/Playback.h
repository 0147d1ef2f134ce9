// A file's messages as the performance engine takes them, and what the virtual
// backend tells about how they went out.
#ifndef QUAVIX_TOOLS_PLAYBACK_H
#define QUAVIX_TOOLS_PLAYBACK_H

#include "Cli.h"

namespace qxcli {

struct Item {
    DWORD ms;                  // performance time
    DWORD msg;                 // a short message, packed
    std::vector<BYTE> sysex;   // or a complete SysEx
};

Item MakeItem(const qxsmf::Message& message);
std::vector<Item> MakeItems(const qxsmf::Timeline& timeline);
// A new record for PlayBuffer, or null when it cannot be made.
CQXEventData* MakeEvent(const Item& item, int nOutput, DWORD dwTime);

struct Lateness {
    size_t count = 0;
    double worstMs = 0;
    double p99Ms = 0;
};
// Emission against due time of timed messages, gathered as they come: a fixed amount of
// memory (microsecond bins up to 100 ms) however many there are.
class LatenessMeter {
public:
    void Add(const std::vector<VirtualLog::Entry>& entries, size_t from, size_t to);
    Lateness Result() const;

private:
    static constexpr size_t kBins = 100'000;
    std::vector<uint32_t> m_bins = std::vector<uint32_t>(kBins);
    std::vector<double> m_beyond; // later than the bins reach: rare
    size_t m_count = 0;
    double m_worstMs = 0;
};
// Emission against due time of the timed messages in [from, to).
Lateness MeasureLateness(const std::vector<VirtualLog::Entry>& entries, size_t from, size_t to);

std::string Describe(const qxsmf::File& file, const qxsmf::Timeline& timeline);
std::string Describe(const qxsmf::Song& song);

} // namespace qxcli

#endif // QUAVIX_TOOLS_PLAYBACK_H
