// What every test against a real server shares: the programs it runs for its length, the
// private servers it starts and stops itself (also when it fails), and waiting for a
// condition rather than for a time.
#ifndef QUAVIX_TESTS_INTEGRATION_HARNESS_H
#define QUAVIX_TESTS_INTEGRATION_HARNESS_H

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace harness {

using namespace std::chrono_literals;

// Polls until `done` holds; false when the limit passes first. Limits only keep a broken
// build from hanging.
template <class F>
bool Await(F&& done, std::chrono::milliseconds limit = 10s)
{
    for (const auto end = std::chrono::steady_clock::now() + limit; !done(); std::this_thread::sleep_for(10ms))
        if (std::chrono::steady_clock::now() > end) return false;
    return true;
}

// Per process and call: another build's tests may run at the same time.
inline std::string Temp(const std::string& what)
{
    static int n = 0;
    return "/tmp/quavix-it-" + std::to_string(getpid()) + "-" + std::to_string(++n) + "-" + what;
}

// A Temp name whose file (or directory) goes with it.
struct TempFile {
    const std::string path;
    explicit TempFile(const std::string& what) : path(Temp(what)) {}
    ~TempFile()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    operator const std::string&() const { return path; }
};

inline std::string Slurp(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

inline std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::stringstream s(text);
    for (std::string l; std::getline(s, l);) lines.push_back(l);
    return lines;
}

// A program run for the length of a test: stdin empty, stdout to `out`, stderr to `err`
// (or with stdout), `env` before ours (the first of a name counts).
class Child {
public:
    Child(std::vector<std::string> argv, const std::string& out = "/dev/null", const std::string& err = "",
          const std::vector<std::string>& env = {})
    {
        std::vector<std::string> envs = env;
        for (char** e = environ; *e != nullptr; ++e) envs.emplace_back(*e);
        std::vector<char*> args, envp;
        for (auto& a : argv) args.push_back(a.data());
        for (auto& e : envs) envp.push_back(e.data());
        args.push_back(nullptr);
        envp.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (err.empty()) posix_spawn_file_actions_adddup2(&fa, 1, 2);
        else posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (posix_spawnp(&m_pid, args[0], &fa, nullptr, args.data(), envp.data()) != 0) m_pid = -1;
        posix_spawn_file_actions_destroy(&fa);
    }
    ~Child() { Kill(SIGTERM); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // True once it has ended; then Wait gives its status at once.
    bool Ended()
    {
        int ws = 0;
        const pid_t w = m_pid > 0 ? waitpid(m_pid, &ws, WNOHANG) : 0;
        if (w != 0) m_status = w == m_pid ? (WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws)) : -1;
        if (w != 0) m_pid = -1;
        return m_pid <= 0;
    }
    // Its exit status (128 + n when signal n ended it), or -1 when it ran past the limit
    // (then it is killed).
    int Wait(std::chrono::milliseconds limit)
    {
        if (Await([&] { return Ended(); }, limit)) return m_status;
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
        return m_status = -1;
    }
    void Signal(int sig)
    {
        if (m_pid > 0) kill(m_pid, sig);
    }
    void Kill(int sig)
    {
        Signal(sig);
        Wait(30s);
    }
    void Stop() { Kill(SIGTERM); }

private:
    pid_t m_pid = -1;
    int m_status = -1;
};

inline int Command(std::vector<std::string> argv, const std::vector<std::string>& env = {})
{
    return Child(std::move(argv), "/dev/null", "", env).Wait(60s);
}

// A private server that one of this folder's scripts starts and waits for (`SCRIPT start
// ARGS`) and stops (`SCRIPT stop ARGS`), as the fixtures' servers are; stopped at the end
// also when the test fails. The test may kill it hard. A JACK server killed so stays in
// JACK's registry of servers, which holds eight, until one of the same name starts
// again: so a killed server is started once more before it is stopped.
class Server {
public:
    Server(std::string script, std::vector<std::string> args, std::string pidFile)
        : m_args(std::move(args)), m_pidFile(std::move(pidFile))
    {
        m_args.insert(m_args.begin(), {std::move(script), ""});
        // The server outlives the script: adopted by us, it is reaped at once when it
        // ends, and a JACK server of the same name can start again (a zombie still
        // counts as running for JACK).
        prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
        Start();
    }
    ~Server()
    {
        if (m_bKilled) Start();
        Stop();
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    bool Ready() const { return m_ready; }
    bool Start()
    {
        m_bKilled = false;
        return m_ready = Run("start") == 0;
    }
    void Stop()
    {
        const pid_t pid = Pid();
        Run("stop");
        if (pid > 0) waitpid(pid, nullptr, WNOHANG);
    }
    void Kill()
    {
        if (const pid_t pid = Pid(); pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            m_bKilled = true;
        }
    }

private:
    pid_t Pid() const
    {
        pid_t pid = 0;
        std::ifstream(m_pidFile) >> pid;
        return pid;
    }
    int Run(const std::string& action)
    {
        m_args[1] = action;
        return Command(m_args);
    }
    std::vector<std::string> m_args; // the script, the action, its arguments
    std::string m_pidFile;
    bool m_ready = false, m_bKilled = false;
};

#ifdef QUAVIX_JACK_SCRIPT // the integration programs know the script; the unit tests use the rest
// A private JACK server (dummy driver) of the given name; the fixture's server is never
// touched.
class JackServer : public Server {
public:
    explicit JackServer(std::string name)
        : Server(QUAVIX_JACK_SCRIPT, {name, "/tmp/quavix-jackd-" + name + ".pid"}, "/tmp/quavix-jackd-" + name + ".pid"),
          m_name(std::move(name))
    {
    }
    const std::string& Name() const { return m_name; }
    std::vector<std::string> Env() const { return {"JACK_DEFAULT_SERVER=" + m_name, "QUAVIX_BACKEND=jack"}; }
    // True once a port whose name contains `port` is there.
    bool WaitForPort(const std::string& port) const
    {
        const TempFile out("jack_lsp.txt");
        return Await([&] { return Child({"jack_lsp"}, out, "/dev/null", Env()).Wait(10s) == 0 &&
                                  Slurp(out).find(port) != std::string::npos; }, 20s);
    }

private:
    std::string m_name;
};
#endif

// The fixture's PulseAudio (or PipeWire) server: its directory, set by CTest.
inline std::string PulseDir()
{
    const char* d = std::getenv("QUAVIX_PULSE_DIR");
    return d != nullptr ? d : "";
}

// The rate a sink of the fixture's server runs at now (the server may switch a sink
// between its default and alternate rates while nothing plays on it); 0 when not listed.
inline unsigned SinkRate(const std::string& sink)
{
    const TempFile out("sinks.txt");
    unsigned rate = 0;
    if (Child({"pactl", "list", "short", "sinks"}, out, "/dev/null").Wait(30s) == 0)
        for (const std::string& l : Lines(Slurp(out))) {
            size_t hz = l.find("Hz"), at = hz;
            while (at != std::string::npos && at > 0 && std::isdigit(static_cast<unsigned char>(l[at - 1]))) --at;
            if (l.find("\t" + sink + "\t") != std::string::npos && hz != std::string::npos)
                rate = static_cast<unsigned>(std::stoul(l.substr(at, hz - at)));
        }
    return rate;
}

// Makes `name` the fixture server's default sink or source ("set-default-sink" ...).
inline int Pactl(const std::string& verb, const std::string& name)
{
    return Command({"pactl", "-s", std::getenv("PULSE_SERVER"), verb, name});
}

// Points ALSA's "default" at a configuration of the test's own, with libpulse itself
// finding no server: raw ALSA PCM through whatever the configuration names.
inline void UseAlsaDefault(const std::string& name, const std::string& pcm)
{
    const std::string conf = PulseDir() + "/" + name + ".conf";
    std::ofstream(conf) << "pcm.!default " << pcm << "\n";
    setenv("ALSA_CONFIG_PATH", ("/usr/share/alsa/alsa.conf:" + conf).c_str(), 1);
    setenv("PULSE_SERVER", "unix:/nonexistent/quavix", 1);
}

} // namespace harness

#endif // QUAVIX_TESTS_INTEGRATION_HARNESS_H
