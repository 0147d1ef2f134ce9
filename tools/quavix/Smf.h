// Standard MIDI Files: a reader that never trusts the file, a writer, and the merged
// timeline of messages in milliseconds that playback needs.
#ifndef QUAVIX_TOOLS_SMF_H
#define QUAVIX_TOOLS_SMF_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qxsmf {

enum class Kind : uint8_t {
    Channel, // a channel message, running status resolved: 2 or 3 bytes
    SysEx,   // an F0 packet: F0 followed by its bytes (ends in F7 unless divided)
    Escape,  // an F7 packet: its bytes as they are to be sent (a SysEx continuation or any message)
    Meta,    // FF type: data holds the payload
};

struct Event {
    uint64_t tick = 0; // absolute, from the start of the track
    Kind kind = Kind::Channel;
    uint8_t metaType = 0;
    std::vector<uint8_t> data;
};

struct Track {
    std::vector<Event> events;
};

struct File {
    int format = 1;
    // Ticks per quarter note when bit 15 is clear; otherwise SMPTE: the high byte is
    // minus the frames per second and the low byte the ticks per frame.
    uint16_t division = 480;
    std::vector<Track> tracks;
};

// Limits that keep a hostile file from taking the machine's memory.
constexpr size_t kMaxFileBytes = size_t{16} << 20;
constexpr size_t kMaxEvents = size_t{4} << 20;
constexpr uint32_t kMaxVlq = 0x0FFFFFFF; // four bytes of seven bits

bool Parse(const uint8_t* pData, size_t cb, File& file, std::string& error);
bool Read(const std::string& path, File& file, std::string& error);

// Events of each track must be in tick order. End of track is written where the track
// has none; bRunningStatus omits repeated channel status bytes.
std::vector<uint8_t> Serialize(const File& file, bool bRunningStatus = true);
// Writes a new file beside path and renames it over path: what was there stays whole
// until the new file is complete on disk.
bool Write(const std::string& path, const File& file, std::string& error);

// One message to send, at a time in milliseconds from the start of the file.
struct Message {
    double ms = 0;
    int track = 0;
    std::vector<uint8_t> bytes; // a short message, or a complete SysEx F0 ... F7
    bool IsSysEx() const { return !bytes.empty() && bytes[0] == 0xF0; }
};

// What a file holds besides its messages.
struct Summary {
    double lengthMs = 0;    // the last event or end of track, whichever is later
    size_t tempoChanges = 0;
    size_t metaSkipped = 0; // meta events other than tempo and end of track
    size_t dropped = 0;     // incomplete SysEx and escapes that are no message
    std::string title;      // the first track's name, when it has one
};

struct Timeline : Summary {
    std::vector<Message> messages; // time order; file order among equal times
};

// Merges the tracks of a format 0 or 1 file through its tempo map. scale > 1 plays
// faster: every time is divided by it.
bool BuildTimeline(const File& file, double scale, Timeline& timeline, std::string& error);

// The messages of a file, merged as BuildTimeline merges them, but read from the file's
// bytes one at a time: memory holds the file and one cursor per track, whatever its
// length.
class Song {
public:
    Song();
    ~Song();
    Song(const Song&) = delete;
    Song& operator=(const Song&) = delete;

    // Reads and checks the whole file (its errors name it) and counts what it holds.
    bool Load(const std::string& path, double scale, std::string& error);
    bool Open(std::vector<uint8_t> bytes, double scale, std::string& error);

    int Format() const;
    size_t Tracks() const;
    const Summary& Info() const;
    size_t Messages() const;  // how many Next gives
    double FirstMs() const;   // the first message's time (0 without any)
    double LastMs() const;    // the last message's time (0 without any)

    // The next message in time order (file order among equal times); false at the end.
    bool Next(Message& message);

private:
    struct Impl;
    std::unique_ptr<Impl> m;
};

// "1 track", "2 tracks": a count and its noun, singular or plural.
std::string Counted(size_t n, const std::string& noun);

// Number of bytes of a short message with this status, 0 for F0, F7 and data bytes.
size_t ShortLength(uint8_t status);

// A file of one track holding the messages at millisecond ticks (500 ticks a quarter
// note at 120 beats a minute), as a sequencer would record them.
File FromMilliseconds(const std::vector<std::pair<uint64_t, std::vector<uint8_t>>>& messages,
                      const std::string& trackName = {});

} // namespace qxsmf

#endif // QUAVIX_TOOLS_SMF_H
