// A recording survives its recorder: the header keeps up with the data while it is
// written, so that a writer killed or stopped by a full disk leaves a file that we and
// SoX read, with lengths that say what it holds.
#include <quavix/QXWaveFile.h>

#include "WaveTestUtil.h"

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>

using namespace wavetest;

namespace {

DWORD FileLe32(const std::string& file, size_t at)
{
    if (file.size() < at + 4) return 0xDEADBEEF;
    const auto* p = reinterpret_cast<const unsigned char*>(file.data() + at);
    return DWORD(p[0]) | DWORD(p[1]) << 8 | DWORD(p[2]) << 16 | DWORD(p[3]) << 24;
}

std::string ReadWhole(const std::string& path)
{
    CWaveFileRead r;
    return OpenFile(r, path) ? ReadToEnd(r) : "<refused>";
}

bool HaveSox() { return std::system("command -v sox >/dev/null 2>&1") == 0; }

// The sample bytes SoX finds in the file, or "<sox failed>".
std::string SoxRaw(const std::string& path)
{
    const std::string raw = path + ".raw";
    if (std::system(("sox -V1 '" + path + "' -t raw '" + raw + "' 2>/dev/null").c_str()) != 0) return "<sox failed>";
    return Slurp(raw);
}

// Runs fnChild in a child process; its exit status, or -1.
int RunChild(const std::function<int()>& fnChild)
{
    int fds[2];
    if (pipe(fds) != 0) return -1;
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        alarm(60); // never outlive a stuck test
        const char code = char(fnChild());
        _exit(write(fds[1], &code, 1) == 1 ? code : 90);
    }
    close(fds[1]);
    pollfd p{fds[0], POLLIN, 0};
    if (pid > 0 && poll(&p, 1, 60000) != 1) kill(pid, SIGKILL); // stuck
    close(fds[0]);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Writes data in pieces of `piece` bytes; false at the first Write that fails.
bool Record(CWaveFileWrite& w, const std::string& data, size_t piece, size_t pieces = SIZE_MAX)
{
    for (size_t at = 0; at < data.size() && pieces-- > 0; at += piece) {
        std::string bytes = data.substr(at, piece);
        WAVEHDR h = Header(bytes);
        if (w.Write(&h) != long(bytes.size())) return false;
    }
    return true;
}

class Recording : public ScratchTest {};

} // namespace

// The refresh rewrites the header from the format record; without one it writes the
// two lengths alone, and the format already in the file stays.
TEST_F(Recording, TheHeaderKeepsUpWithTheDataWhileRecording)
{
    const std::string path = Path("rec.wav");
    const std::string data = Pattern(3 * 88200);
    // (standard format, piece): pieces shorter and longer than the one-second file
    // buffer and one of exactly it; the format dropped halfway; a writer left open.
    for (auto [index, piece] : {std::pair{0, 3000}, {0, 8000}, {0, 21000}, {0, 5000}, {13, 88200}}) {
        SCOPED_TRACE(std::to_string(index) + ", pieces of " + std::to_string(piece));
        QX_DevFormat format = StdFormat(index);
        const DWORD second = format.nAvgBytesPerSec;
        const bool drop = piece == 5000;
        {
            CWaveFileWrite w;
            ASSERT_EQ(OpenFile(w, path, &format), 1);
            for (size_t at = 0; at < data.size(); at += size_t(piece)) {
                if (drop && at == 15000) w.SetFormat(nullptr);
                ASSERT_TRUE(Record(w, data.substr(at, size_t(piece)), size_t(piece)));
                const size_t written = std::min(at + size_t(piece), data.size());
                // What another program sees now: lengths at most a second behind, and true.
                const std::string file = Slurp(path);
                const DWORD dataLen = FileLe32(file, 42);
                EXPECT_GE(dataLen + second, written) << "at " << written;
                ASSERT_LE(dataLen, written);
                EXPECT_EQ(FileLe32(file, 4), dataLen == 0 ? 0 : dataLen + 38);
                EXPECT_TRUE(ReadWhole(path) == data.substr(0, dataLen)) << "at " << written;
            }
            // Refreshing the header left the writer's place alone.
            EXPECT_EQ(w.GetFilePosition(), long(46 + data.size()));
            EXPECT_EQ(w.GetDuration(), drop ? 0 : long(data.size() * 1000 / second));
            if (index == 0) { // else the destructor finishes the file
                ASSERT_EQ(w.Close(), 1);
            }
        }
        const std::string file = Slurp(path);
        EXPECT_EQ(file.size(), 46 + data.size());
        EXPECT_EQ(FileLe32(file, 4), 38 + data.size());
        EXPECT_EQ(FileLe32(file, 42), data.size());
        EXPECT_TRUE(ReadWhole(path) == data);
        QX_DevFormat back{};
        ASSERT_EQ(CWaveFile::FileFormat(path.c_str(), back), 1);
        EXPECT_EQ(std::memcmp(&back, &format, sizeof(format)), 0);
        EXPECT_TRUE(!HaveSox() || SoxRaw(path) == data);
    }
}

TEST_F(Recording, AFullDiskLeavesTrueLengths)
{
    QX_DevFormat format = StdFormat(0);
    const std::string data = Pattern(200000, 5);
    // Records until a Write fails, then closes; says how it went in its exit code.
    auto record = [&](const std::string& path) {
        QXSetTraceProc([](const char*, void*) {}, nullptr);
        CWaveFileWrite w;
        if (!OpenFile(w, path, &format)) return 10;
        if (Record(w, data, 3000)) return 12;
        w.Close(); // reports the failures; the lengths are what the test checks
        return 0;
    };
    // A file size limit: writes past 40,000 bytes fail with EFBIG.
    const std::string limited = Path("limited.wav");
    ASSERT_EQ(RunChild(
                  [&] {
                      signal(SIGXFSZ, SIG_IGN);
                      const rlimit limit{40000, 40000};
                      return setrlimit(RLIMIT_FSIZE, &limit) != 0 ? 20 : record(limited);
                  }),
              0);
    // A real full disk: a 64 KiB tmpfs in a mount namespace of the child's own, where
    // root may mount one. The child copies the file out before its mount goes.
    const std::string full = Path("full.wav");
    const int tmpfs = RunChild(
        [&] {
            const std::string mnt = Path("mnt");
            if (mkdir(mnt.c_str(), 0700) != 0 || unshare(CLONE_NEWNS) != 0 ||
                mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=64k") != 0)
                return 77;
            const int code = record(mnt + "/rec.wav");
            std::ofstream(full, std::ios::binary) << Slurp(mnt + "/rec.wav");
            return code;
        });
    ASSERT_TRUE(tmpfs == 0 || tmpfs == 77) << tmpfs;

    for (const std::string& path : {limited, full}) {
        if (path == full && tmpfs == 77) continue;
        SCOPED_TRACE(path);
        const std::string file = Slurp(path);
        ASSERT_GT(file.size(), 46u + 8000);
        EXPECT_LE(file.size(), path == limited ? 40000u : 65536u);
        // The bytes both on disk and counted as written: all the disk took, or whole
        // pieces when the head of the failed piece made it to disk too (outside the chunks).
        const DWORD dataLen = FileLe32(file, 42);
        EXPECT_TRUE(46 + dataLen == file.size() || dataLen % 3000 == 0) << dataLen;
        EXPECT_LE(46 + dataLen, file.size());
        EXPECT_GT(46 + dataLen + 3000, file.size());
        EXPECT_EQ(FileLe32(file, 4), dataLen + 38);
        const std::string ours = ReadWhole(path);
        EXPECT_EQ(ours.size(), dataLen);
        EXPECT_TRUE(ours == data.substr(0, ours.size()));
        EXPECT_TRUE(!HaveSox() || SoxRaw(path) == ours);
    }
    if (tmpfs == 77) GTEST_SKIP() << "tmpfs not mountable here: the full disk was checked with a file size limit only";
}
