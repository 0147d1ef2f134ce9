// Throughput of the wave file devices beside plain read(2)/write(2) loops of the same
// piece sizes, in the same run and on the same files: writing in half-second pieces
// (44.1 kHz stereo 16-bit, 88,200 bytes) through CWaveFileWrite::Write, reading in
// 8192-byte pieces through CWaveFileRead::Read and, where it is installed, libsndfile's
// sf_read_raw. The file is read right after it is written, so the page cache is warm.
// Each round is printed, then the median, the slowest and the fastest round of each
// column, and the ratios. Files live in /tmp and are removed.
//
//   wavefile_io [--mb N] [--rounds N]

#include <quavix/QXWaveFile.h>

#if QUAVIX_HAVE_SNDFILE
#include <sndfile.h>
#endif

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kWritePiece = 88200; // half a second of 44.1 kHz stereo 16-bit
constexpr int kReadPiece = 8192;

std::string g_ours, g_plain;

void RemoveFiles()
{
    if (!g_ours.empty()) unlink(g_ours.c_str());
    if (!g_plain.empty()) unlink(g_plain.c_str());
}

void OnSignal(int sig)
{
    RemoveFiles();
    std::signal(sig, SIG_DFL);
    std::raise(sig);
}

double Seconds(Clock::time_point from)
{
    return std::chrono::duration<double>(Clock::now() - from).count();
}

[[noreturn]] void Die(const char* what)
{
    std::fprintf(stderr, "wavefile_io: %s\n", what);
    RemoveFiles();
    std::exit(1);
}

double PlainWrite(const std::vector<char>& piece, size_t pieces)
{
    unlink(g_plain.c_str());
    const auto t0 = Clock::now();
    const int fd = open(g_plain.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
    if (fd < 0) Die("cannot create the plain file");
    for (size_t i = 0; i < pieces; ++i)
        if (write(fd, piece.data(), piece.size()) != ssize_t(piece.size())) Die("plain write failed");
    if (close(fd) != 0) Die("plain close failed");
    return Seconds(t0);
}

double OurWrite(std::vector<char>& piece, size_t pieces)
{
    unlink(g_ours.c_str());
    WAVEFORMATEX wfx;
    CQXDevice::FillFormat(&wfx, 13); // 44.1 kHz stereo 16-bit
    QX_DevFormat format;
    std::memcpy(&format, &wfx, sizeof(format));
    CWaveFileWrite w;
    w.SetFilename(g_ours.c_str());
    w.SetFormat(&format);
    WAVEHDR h{};
    h.lpData = piece.data();
    h.dwBufferLength = h.dwBytesRecorded = DWORD(piece.size());
    const auto t0 = Clock::now();
    if (!w.Open(0)) Die("cannot create the wave file");
    for (size_t i = 0; i < pieces; ++i)
        if (w.Write(&h) != long(piece.size())) Die("Write failed");
    if (!w.Close()) Die("Close failed");
    return Seconds(t0);
}

double PlainRead(size_t* pBytes)
{
    std::vector<char> buf(kReadPiece);
    const auto t0 = Clock::now();
    const int fd = open(g_ours.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) Die("cannot open the file to read");
    size_t total = 0;
    for (ssize_t n; (n = read(fd, buf.data(), buf.size())) > 0;) total += size_t(n);
    close(fd);
    *pBytes = total;
    return Seconds(t0);
}

double OurRead(size_t* pBytes)
{
    std::vector<unsigned char> buf(kReadPiece);
    CWaveFileRead r;
    r.SetFilename(g_ours.c_str());
    const auto t0 = Clock::now();
    if (!r.Open(0)) Die("cannot open the wave file");
    size_t total = 0;
    for (int n; (n = r.Read(buf.data(), kReadPiece)) > 0;) total += size_t(n);
    r.Close();
    *pBytes = total;
    return Seconds(t0);
}

#if QUAVIX_HAVE_SNDFILE
double SndfileRead(size_t* pBytes)
{
    std::vector<char> buf(kReadPiece);
    const auto t0 = Clock::now();
    SF_INFO info{};
    SNDFILE* f = sf_open(g_ours.c_str(), SFM_READ, &info);
    if (f == nullptr) Die("libsndfile cannot open the wave file");
    size_t total = 0;
    for (sf_count_t n; (n = sf_read_raw(f, buf.data(), kReadPiece)) > 0;) total += size_t(n);
    sf_close(f);
    *pBytes = total;
    return Seconds(t0);
}
#endif

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    long mb = 200;
    int rounds = 7;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--mb") == 0 && i + 1 < argc) {
            mb = std::strtol(argv[++i], nullptr, 10);
        } else if (std::strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) {
            rounds = int(std::strtol(argv[++i], nullptr, 10));
        } else {
            std::fprintf(stderr, "usage: %s [--mb N] [--rounds N]\n", argv[0]);
            return 2;
        }
    }
    // Offsets are 32-bit: a wave file stays under 2 GiB.
    if (mb < 1 || mb > 2000 || rounds < 1) {
        std::fprintf(stderr, "wavefile_io: --mb takes 1 to 2000, --rounds at least 1\n");
        return 2;
    }
    g_ours = "/tmp/qx-wavefile-io-" + std::to_string(getpid()) + ".wav";
    g_plain = "/tmp/qx-wavefile-io-" + std::to_string(getpid()) + ".raw";
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);

    std::vector<char> piece(kWritePiece);
    for (size_t i = 0; i < piece.size(); ++i) piece[i] = char(i * 7 + 3);
    const size_t pieces = (size_t(mb) * 1000000 + kWritePiece - 1) / kWritePiece;
    const double writeMB = double(pieces * kWritePiece) / 1e6;

    std::vector<double> pw, ow, pr, orr, sr;
#if QUAVIX_HAVE_SNDFILE
    const bool sndfile = true;
#else
    const bool sndfile = false;
#endif
    std::printf("%zu MB, %d rounds: writes of %zu bytes, reads of %d bytes (MB/s)%s\n", size_t(writeMB), rounds,
                kWritePiece, kReadPiece, sndfile ? "" : "; libsndfile not built in");
    std::printf("round  write(2)  Write  ratio |  read(2)   Read  sf_read_raw | Read/read sf/read Read/sf\n");
    auto row = [&](const char* label, double a, double b, double c, double d, double e) {
        std::printf("%-6s %8.0f %6.0f %5.0f%% | %8.0f %6.0f %12.0f | %8.0f%% %6.0f%% %6.0f%%\n", label, a, b,
                    100 * b / a, c, d, e, 100 * d / c, 100 * e / c, e > 0 ? 100 * d / e : 0.0);
    };
    for (int round = 0; round < rounds; ++round) {
        // Alternate the order so that neither side always meets a warmer cache.
        double tPlainW, tOurW;
        if (round % 2 == 0) {
            tPlainW = PlainWrite(piece, pieces);
            tOurW = OurWrite(piece, pieces);
        } else {
            tOurW = OurWrite(piece, pieces);
            tPlainW = PlainWrite(piece, pieces);
        }
        size_t plainBytes = 0, ourBytes = 0, sfBytes = 0;
        double tPlainR = 0, tOurR = 0, tSfR = 0;
        // Three readers in a rotating order.
        for (int k = 0; k < 3; ++k) {
            switch ((round + k) % 3) {
            case 0: tPlainR = PlainRead(&plainBytes); break;
            case 1: tOurR = OurRead(&ourBytes); break;
            default:
#if QUAVIX_HAVE_SNDFILE
                tSfR = SndfileRead(&sfBytes);
#endif
                break;
            }
        }
        if (ourBytes != pieces * kWritePiece) Die("Read did not deliver every sample byte");
        if (sndfile && sfBytes != ourBytes) Die("libsndfile and Read delivered different counts");
        pw.push_back(writeMB / tPlainW);
        ow.push_back(writeMB / tOurW);
        pr.push_back(double(plainBytes) / 1e6 / tPlainR);
        orr.push_back(double(ourBytes) / 1e6 / tOurR);
        sr.push_back(tSfR > 0 ? double(sfBytes) / 1e6 / tSfR : 0.0);
        row(std::to_string(round + 1).c_str(), pw.back(), ow.back(), pr.back(), orr.back(), sr.back());
    }
    row("median", Median(pw), Median(ow), Median(pr), Median(orr), Median(sr));
    // Other work on the machine only ever slows a round down: the fastest round of each
    // is the least disturbed, the slowest shows the spread.
    auto best = [](const std::vector<double>& v) { return *std::max_element(v.begin(), v.end()); };
    auto worst = [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); };
    row("slow", worst(pw), worst(ow), worst(pr), worst(orr), worst(sr));
    row("fast", best(pw), best(ow), best(pr), best(orr), best(sr));
    RemoveFiles();
    return 0;
}
