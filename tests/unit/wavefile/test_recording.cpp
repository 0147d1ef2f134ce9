// A recording survives its recorder: the header keeps up with the data while it is
// written, a writer killed mid-recording or stopped by a full disk leaves a file that
// we and SoX read, with lengths that say what it holds.
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
#include <cstring>
#include <functional>

using namespace wavetest;

namespace {

constexpr DWORD kRate = 8000; // 8 kHz mono 8-bit: a second of audio is 8000 bytes

QX_DevFormat Format8k()
{
    const QX_DevFormat f = StdFormat(0);
    EXPECT_EQ(f.nAvgBytesPerSec, kRate);
    return f;
}

DWORD HeaderLe32(const std::string& file, size_t at)
{
    if (file.size() < at + 4) return 0xDEADBEEF;
    const auto* p = reinterpret_cast<const unsigned char*>(file.data() + at);
    return DWORD(p[0]) | DWORD(p[1]) << 8 | DWORD(p[2]) << 16 | DWORD(p[3]) << 24;
}

std::string ReadWhole(const std::string& path)
{
    CWaveFileRead r;
    r.SetFilename(path.c_str());
    if (!r.Open(0)) return "<refused>";
    std::string out, buf(4096, '\0');
    for (int n; (n = r.Read(reinterpret_cast<unsigned char*>(buf.data()), int(buf.size()))) > 0;)
        out.append(buf, 0, size_t(n));
    return out;
}

bool HaveSox()
{
    return std::system("command -v sox >/dev/null 2>&1") == 0;
}

// The sample bytes SoX finds in the file, or "<sox failed>".
std::string SoxRaw(const std::string& path)
{
    const std::string raw = path + ".raw";
    if (std::system(("sox -V1 '" + path + "' -t raw '" + raw + "' 2>/dev/null").c_str()) != 0) return "<sox failed>";
    return Slurp(raw);
}

// Runs fnChild in a child process. The child writes one byte into the pipe when it
// has done what the parent waits for; the parent gets its exit status, or kills it
// (SIGKILL) once that byte arrived when bKill is set.
int RunChild(const std::function<int()>& fnChild, bool bKill)
{
    int fds[2];
    if (pipe(fds) != 0) return -1;
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        alarm(60); // never outlive a stuck test
        const int code = fnChild();
        const char c = 'x';
        if (write(fds[1], &c, 1) != 1) _exit(90);
        if (bKill) pause();
        _exit(code);
    }
    close(fds[1]);
    if (pid < 0) {
        close(fds[0]);
        return -1;
    }
    pollfd p{fds[0], POLLIN, 0};
    const bool signalled = poll(&p, 1, 60000) == 1;
    if (bKill || !signalled) kill(pid, SIGKILL);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (bKill) return signalled && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL ? 0 : -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class Recording : public ScratchTest {};

} // namespace

// The refresh rewrites the header from the format record; without one (dropped at
// dropAt) it writes the two lengths alone, and the format already in the file stays.
TEST_F(Recording, TheHeaderKeepsUpWithTheDataWhileRecording)
{
    const std::string path = Path("rec.wav");
    QX_DevFormat format = Format8k();
    const std::string data = Pattern(70000);
    // Pieces shorter and longer than the one-second file buffer, and one of exactly it.
    for (const auto& [piece, dropAt] : {std::pair<size_t, size_t>{3000, 0}, {kRate, 0}, {21000, 0}, {5000, 15000}}) {
        SCOPED_TRACE("pieces of " + std::to_string(piece) + (dropAt ? ", format dropped" : ""));
        CWaveFileWrite w;
        ASSERT_EQ(OpenFile(w, path, &format), 1);
        for (size_t at = 0; at < data.size(); at += piece) {
            if (at == dropAt && dropAt > 0) w.SetFormat(nullptr);
            std::string bytes = data.substr(at, piece);
            WAVEHDR h = Header(bytes);
            ASSERT_EQ(w.Write(&h), long(bytes.size()));
            const size_t written = at + bytes.size();
            // What another program sees now: lengths at most a second behind, and true.
            const std::string file = Slurp(path);
            const DWORD dataLen = HeaderLe32(file, 42);
            EXPECT_GE(dataLen + kRate, written) << "at " << written;
            ASSERT_LE(dataLen, written);
            EXPECT_EQ(HeaderLe32(file, 4), dataLen == 0 ? 0 : dataLen + 38);
            ASSERT_GE(file.size(), 46 + dataLen);
            EXPECT_TRUE(file.compare(46, dataLen, data, 0, dataLen) == 0);
            EXPECT_TRUE(ReadWhole(path) == data.substr(0, dataLen)) << "at " << written;
        }
        // Refreshing the header left the writer's place alone: the file is whole.
        EXPECT_EQ(w.GetFilePosition(), long(46 + data.size()));
        EXPECT_EQ(w.GetDuration(), dropAt ? 0 : long(data.size() * 1000 / kRate));
        ASSERT_EQ(w.Close(), 1);
        const std::string file = Slurp(path);
        EXPECT_EQ(file.size(), 46 + data.size());
        EXPECT_EQ(HeaderLe32(file, 4), 38 + data.size());
        EXPECT_EQ(HeaderLe32(file, 42), data.size());
        EXPECT_TRUE(ReadWhole(path) == data);
        QX_DevFormat back{};
        ASSERT_EQ(CWaveFile::FileFormat(path.c_str(), back), 1);
        EXPECT_EQ(std::memcmp(&back, &format, sizeof(format)), 0);
    }
}

TEST_F(Recording, AWriterKilledMidRecordingLeavesAFileEveryoneReads)
{
    QX_DevFormat format = Format8k();
    const std::string data = Pattern(200000, 3);
    // (piece, pieces): a refresh just done, one a while ago, pieces past the buffer.
    for (auto [piece, pieces] : {std::pair{3000, 11}, {3000, 10}, {20000, 3}, {2500, 1}}) {
        const std::string path = Path("killed-" + std::to_string(piece) + "-" + std::to_string(pieces) + ".wav");
        const int result = RunChild(
            [&, piece = piece, pieces = pieces] {
                auto* w = new CWaveFileWrite; // never finished: the process dies with it open
                if (!OpenFile(*w, path, &format)) return 1;
                for (int i = 0; i < pieces; ++i) {
                    std::string bytes = data.substr(size_t(i * piece), size_t(piece));
                    WAVEHDR h = Header(bytes);
                    if (w->Write(&h) != piece) return 2;
                }
                return 0;
            },
            true);
        ASSERT_EQ(result, 0) << "the child did not record, or was not killed";
        const size_t written = size_t(piece * pieces);
        const std::string ours = ReadWhole(path);
        // At most one second lost, nothing wrong kept.
        EXPECT_GE(ours.size() + kRate, written) << path;
        EXPECT_TRUE(ours == data.substr(0, ours.size())) << path;
        EXPECT_EQ(CWaveFile::FileDuration(path.c_str()), long(ours.size() * 1000 / kRate));
        if (HaveSox()) {
            EXPECT_TRUE(SoxRaw(path) == ours) << path;
        }
    }
}

TEST_F(Recording, AFullDiskLeavesTrueLengths)
{
    QX_DevFormat format = Format8k();
    const std::string data = Pattern(200000, 5);
    // Records until a Write fails, then closes; prints nothing, says how it went in its
    // exit code.
    auto record = [&](const std::string& path) {
        CWaveFileWrite w;
        if (!OpenFile(w, path, &format)) return 10;
        bool failed = false;
        for (size_t at = 0; at < data.size() && !failed; at += 3000) {
            std::string bytes = data.substr(at, 3000);
            WAVEHDR h = Header(bytes);
            const long n = w.Write(&h);
            if (n != 3000 && n != -1) return 11;
            failed = n < 0;
        }
        if (!failed) return 12;
        w.Close(); // reports the failures; the lengths are what the test checks
        return 0;
    };

    // A file size limit: writes past 40,000 bytes fail with EFBIG.
    const std::string limited = Path("limited.wav");
    ASSERT_EQ(RunChild(
                  [&] {
                      QXSetTraceProc([](const char*, void*) {}, nullptr);
                      signal(SIGXFSZ, SIG_IGN);
                      const rlimit limit{40000, 40000};
                      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 20;
                      return record(limited);
                  },
                  false),
              0);
    // A real full disk: a 64 KiB tmpfs in a mount namespace of the child's own, where
    // root may mount one. The child copies the file out before its mount goes.
    const std::string full = Path("full.wav");
    const int tmpfs = RunChild(
        [&] {
            QXSetTraceProc([](const char*, void*) {}, nullptr);
            const std::string mnt = Path("mnt");
            if (mkdir(mnt.c_str(), 0700) != 0 || unshare(CLONE_NEWNS) != 0 ||
                mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=64k") != 0)
                return 77;
            const int code = record(mnt + "/rec.wav");
            const std::string bytes = Slurp(mnt + "/rec.wav");
            std::ofstream(full, std::ios::binary) << bytes;
            return code;
        },
        false);
    ASSERT_TRUE(tmpfs == 0 || tmpfs == 77) << tmpfs;

    for (const std::string& path : {limited, full}) {
        if (path == full && tmpfs == 77) continue; // no tmpfs without the right to mount
        const std::string file = Slurp(path);
        ASSERT_GT(file.size(), 46u + kRate) << path;
        EXPECT_LE(file.size(), path == limited ? 40000u : 65536u);
        // The bytes that are on disk and were counted as written: all the disk took,
        // or whole pieces when the head of the failed piece made it to disk too (it
        // stays there, outside the chunks).
        const DWORD dataLen = HeaderLe32(file, 42);
        EXPECT_TRUE(46 + dataLen == file.size() || dataLen % 3000 == 0) << path << ": " << dataLen;
        EXPECT_LE(46 + dataLen, file.size()) << path;
        EXPECT_GT(46 + dataLen + 3000, file.size()) << path;
        EXPECT_EQ(HeaderLe32(file, 4), dataLen + 38) << path;
        const std::string ours = ReadWhole(path);
        EXPECT_EQ(ours.size(), dataLen);
        EXPECT_TRUE(ours == data.substr(0, ours.size())) << path;
        if (HaveSox()) {
            EXPECT_TRUE(SoxRaw(path) == ours) << path;
        }
    }
    if (tmpfs == 77) GTEST_SKIP() << "tmpfs not mountable here: the full disk was checked with a file size limit only";
}
