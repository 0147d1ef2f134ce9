#include "CliRunner.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

std::string Slurp(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

const std::string& TempDir()
{
    static const std::string dir = [] {
        char tmpl[] = "/tmp/quavix-cli-tests-XXXXXX";
        const char* d = mkdtemp(tmpl);
        return std::string(d != nullptr ? d : "/tmp");
    }();
    return dir;
}

} // namespace

std::vector<std::string> CliResult::ErrLines() const
{
    std::vector<std::string> lines;
    std::stringstream s(err);
    for (std::string l; std::getline(s, l);) lines.push_back(l);
    return lines;
}

std::string TempPath(const std::string& name)
{
    static int n = 0;
    return TempDir() + "/" + std::to_string(getpid()) + "-" + std::to_string(++n) + "-" + name;
}

CliResult RunCli(const std::vector<std::string>& args, const std::vector<std::string>& env,
                 const Interrupt& interrupt, long fileSizeLimit)
{
    const std::string outPath = TempPath("stdout"), errPath = TempPath("stderr");
    std::vector<std::string> argv{QUAVIX_CLI_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> cargv;
    for (auto& a : argv) cargv.push_back(a.data());
    cargv.push_back(nullptr);

    const pid_t pid = fork();
    if (pid == 0) {
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int in = open("/dev/null", O_RDONLY);
        if (out < 0 || err < 0 || in < 0) _exit(127);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        setenv("QUAVIX_BACKEND", "virtual", 1);
        setenv("QUAVIX_SOUNDFONT", "", 1); // the same MIDI outputs whatever SoundFonts the machine has
        for (const auto& e : env) {
            const size_t eq = e.find('=');
            setenv(e.substr(0, eq).c_str(), e.substr(eq + 1).c_str(), 1);
        }
        if (fileSizeLimit > 0) {
            const rlimit limit{static_cast<rlim_t>(fileSizeLimit), static_cast<rlim_t>(fileSizeLimit)};
            setrlimit(RLIMIT_FSIZE, &limit);
        }
        execv(cargv[0], cargv.data());
        _exit(127);
    }
    CliResult r;
    if (pid < 0) return r;
    // Generous limits only keep a stuck child from hanging the suite.
    int wstatus = 0;
    const auto start = std::chrono::steady_clock::now();
    bool bSignalled = interrupt.ms == 0 && !interrupt.when;
    while (waitpid(pid, &wstatus, WNOHANG) != pid) {
        const auto waited = std::chrono::steady_clock::now() - start;
        if (!bSignalled && (interrupt.when ? interrupt.when() : waited >= std::chrono::milliseconds(interrupt.ms))) {
            kill(pid, interrupt.signal);
            bSignalled = true;
        }
        if (waited > std::chrono::seconds(60)) {
            kill(pid, SIGKILL);
            waitpid(pid, &wstatus, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    r.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
    r.out = Slurp(outPath);
    r.err = Slurp(errPath);
    std::remove(outPath.c_str());
    std::remove(errPath.c_str());
    return r;
}

std::string WriteSong(const qxsmf::File& f, const std::string& name)
{
    const std::string path = TempPath(name);
    std::string error;
    EXPECT_TRUE(qxsmf::Write(path, f, error)) << error;
    return path;
}

std::vector<qxsmf::Message> MessagesOf(const qxsmf::File& file, double scale)
{
    qxsmf::Timeline t;
    std::string error;
    EXPECT_TRUE(qxsmf::BuildTimeline(file, scale, t, error)) << error;
    return t.messages;
}

std::vector<qxsmf::Message> MessagesOf(const std::string& path)
{
    qxsmf::File file;
    std::string error;
    EXPECT_TRUE(qxsmf::Read(path, file, error)) << error;
    return MessagesOf(file);
}

bool WriteBytes(const std::string& path, const Bytes& bytes)
{
    std::ofstream f(path, std::ios::binary);
    f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(f);
}

Bytes ReadBytes(const std::string& path)
{
    const std::string s = Slurp(path);
    return {s.begin(), s.end()};
}

std::vector<std::string> DirEntries(const std::string& dir)
{
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (const dirent* e = readdir(d))
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
        closedir(d);
    }
    return names;
}

std::string WriteTone(const std::string& name, double hz, double seconds, double amplitude, unsigned rate)
{
    const std::string path = TempPath(name);
    EXPECT_TRUE(analysis::WriteWav(path, rate, 1, analysis::Sine(rate, 1, hz, amplitude, seconds)));
    return path;
}

Wav ReadWav(const std::string& path)
{
    Wav w = analysis::ReadWav(path);
    EXPECT_NE(w.dataOffset, 0u) << path << " is no RIFF WAVE file with data";
    return w;
}

double Level(const Wav& w, unsigned channel, double hz, double fromMs, double toMs)
{
    const auto a = static_cast<size_t>(fromMs * w.rate / 1000), b = static_cast<size_t>(toMs * w.rate / 1000);
    const double step = 2 * analysis::kPi * hz / w.rate;
    double re = 0, im = 0;
    for (size_t i = a; i < b && (i + 1) * w.channels <= w.x.size(); ++i) {
        re += w.x[i * w.channels + channel] * std::cos(step * double(i));
        im += w.x[i * w.channels + channel] * std::sin(step * double(i));
    }
    return 2 * std::hypot(re, im) / double(b - a);
}
