#include "CliRunner.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
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

CliResult RunCli(const std::vector<std::string>& args, const std::vector<std::string>& env, int interruptAfterMs,
                 int signal, long fileSizeLimit)
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
    if (interruptAfterMs > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(interruptAfterMs));
        kill(pid, signal);
    }
    // A generous bound only so that a stuck child cannot hang the suite.
    int wstatus = 0;
    for (int i = 0; i < 6000; ++i) {
        const pid_t done = waitpid(pid, &wstatus, WNOHANG);
        if (done == pid) break;
        if (i == 5999) {
            kill(pid, SIGKILL);
            waitpid(pid, &wstatus, 0);
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

bool WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes)
{
    std::ofstream f(path, std::ios::binary);
    f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(f);
}

std::vector<uint8_t> ReadBytes(const std::string& path)
{
    const std::string s = Slurp(path);
    return {s.begin(), s.end()};
}
