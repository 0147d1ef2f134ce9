// The quavix program against JACK servers of its own that the tests start, kill and
// watch: a server that dies under a running command, a destination client that goes.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

std::string Slurp(const std::string& path)
{
    std::ifstream f(path);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

std::string Temp(const std::string& name)
{
    static int n = 0;
    return "/tmp/quavix-cli-jack-" + std::to_string(getpid()) + "-" + std::to_string(++n) + "-" + name;
}

// A child process with its own environment additions and its output in files.
class Proc {
public:
    Proc(std::vector<std::string> argv, const std::vector<std::string>& env)
        : m_out(Temp("out")), m_err(Temp("err"))
    {
        std::vector<std::string> envs;
        for (char** e = environ; *e != nullptr; ++e) envs.emplace_back(*e);
        envs.insert(envs.end(), env.begin(), env.end());
        std::vector<char*> args, envp;
        for (auto& a : argv) args.push_back(a.data());
        args.push_back(nullptr);
        for (auto& e : envs) envp.push_back(e.data());
        envp.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&fa, 1, m_out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&fa, 2, m_err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (posix_spawnp(&m_pid, args[0], &fa, nullptr, args.data(), envp.data()) != 0) m_pid = -1;
        posix_spawn_file_actions_destroy(&fa);
    }
    ~Proc()
    {
        Stop();
        std::remove(m_out.c_str());
        std::remove(m_err.c_str());
    }
    Proc(const Proc&) = delete;
    Proc& operator=(const Proc&) = delete;

    bool Started() const { return m_pid > 0; }
    // SIGTERM, then SIGKILL if it does not end within ten seconds.
    void Stop()
    {
        if (m_pid <= 0) return;
        kill(m_pid, SIGTERM);
        Wait(10'000);
    }
    void Kill(int sig)
    {
        if (m_pid <= 0) return;
        kill(m_pid, sig);
        if (sig == SIGKILL) Wait(30'000);
    }
    // Its exit status (128 + n when killed by signal n), or -1 if it ran past timeoutMs
    // (then it is killed).
    int Wait(int timeoutMs)
    {
        if (m_pid <= 0) return m_status;
        const auto until = Clock::now() + std::chrono::milliseconds(timeoutMs);
        int ws = 0;
        while (waitpid(m_pid, &ws, WNOHANG) == 0) {
            if (Clock::now() > until) {
                kill(m_pid, SIGKILL);
                waitpid(m_pid, &ws, 0);
                m_pid = -1;
                return m_status = -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        m_pid = -1;
        return m_status = WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws);
    }
    std::string Out() const { return Slurp(m_out); }
    std::string Err() const { return Slurp(m_err); }

private:
    pid_t m_pid = -1;
    int m_status = -1;
    std::string m_out, m_err;
};

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::stringstream s(text);
    for (std::string l; std::getline(s, l);) lines.push_back(l);
    return lines;
}

// A private JACK server (dummy driver) with a MIDI sink and a MIDI source client, all of
// which the test may kill; the shared fixture's server is never touched.
//
// A server killed hard stays in JACK's registry of servers, which holds eight, until a
// server of the same name starts again: so the name is always the same one, and the
// server that was killed is started once more and stopped cleanly at the end.
class PrivateJack {
public:
    PrivateJack() : m_name("quavix-cli-test")
    {
        if (!StartServer()) return;
        m_sink = std::make_unique<Proc>(std::vector<std::string>{"jack_midi_dump", "qxsink"}, Env());
        m_source = std::make_unique<Proc>(std::vector<std::string>{"jack_midiseq", "qxsource", "24000", "0", "60", "8000"},
                                          Env());
        m_ready = WaitForPorts("qxsink:input") && WaitForPorts("qxsource:out");
    }
    ~PrivateJack()
    {
        m_sink.reset();
        m_source.reset();
        if (m_bKilled) StartServer(); // takes the dead server's place in the registry back
        m_server.reset();
    }

    bool Ready() const { return m_ready; }
    std::vector<std::string> Env() const { return {"JACK_DEFAULT_SERVER=" + m_name, "QUAVIX_BACKEND=jack"}; }
    void KillServer()
    {
        m_server->Kill(SIGKILL);
        m_bKilled = true;
    }
    void KillSink() { m_sink->Kill(SIGKILL); }
    void KillSource() { m_source->Kill(SIGKILL); }

private:
    bool StartServer()
    {
        m_server = std::make_unique<Proc>(
            std::vector<std::string>{"jackd", "-n", m_name, "-r", "-d", "dummy", "-r", "48000", "-p", "256"},
            std::vector<std::string>{});
        return WaitForPorts("system:");
    }

    bool WaitForPorts(const std::string& port)
    {
        for (int i = 0; i < 100; ++i) {
            Proc lsp({"jack_lsp"}, Env());
            if (lsp.Wait(10'000) == 0 && lsp.Out().find(port) != std::string::npos) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }

    std::string m_name;
    std::unique_ptr<Proc> m_server, m_sink, m_source;
    bool m_ready = false, m_bKilled = false;
};

std::vector<std::string> Cli(std::vector<std::string> args)
{
    args.insert(args.begin(), QUAVIX_CLI_PATH);
    return args;
}

const std::string kDemo = std::string(QUAVIX_SOURCE_DIR) + "/examples/quavix-demo.mid";

} // namespace

// Each command stops at once with one line when its server dies under it, rather than
// playing on, reporting success or running until Ctrl-C.
TEST(CliJack, ServerThatDiesStopsEveryCommandWithOneLine)
{
    const std::string take = Temp("take.mid");
    const struct {
        std::vector<std::string> args;
        const char* says;
    } cases[] = {
        {{"perform", kDemo, "--output", "0"}, "the performance stopped at"},
        {{"record-midi", "--in", "0", take}, "recording stopped after"},
        {{"thru", "--in", "0", "--out", "0"}, "thru stopped after"},
    };
    for (const auto& c : cases) {
        PrivateJack jack;
        ASSERT_TRUE(jack.Ready()) << "the private JACK server or its clients did not come up";
        Proc cli(Cli(c.args), jack.Env());
        ASSERT_TRUE(cli.Started());
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        const auto killed = Clock::now();
        jack.KillServer();
        // The demo plays for 28 s and the others run until stopped; half a minute only
        // keeps a broken build from hanging here.
        const int status = cli.Wait(30'000);
        const double secs = std::chrono::duration<double>(Clock::now() - killed).count();
        EXPECT_EQ(status, 1) << c.args[0] << "\n" << cli.Err();
        EXPECT_LT(secs, 20.0) << c.args[0] << " ran on after its server died";
        const auto lines = Lines(cli.Err());
        ASSERT_EQ(lines.size(), 1u) << c.args[0] << "\n" << cli.Err();
        EXPECT_NE(lines[0].find("quavix " + c.args[0] + ": the JACK server went away; " + c.says), std::string::npos)
            << lines[0];
        EXPECT_EQ(cli.Out().find("Summary"), std::string::npos) << cli.Out();
    }
    // What the take holds up to then is written.
    std::ifstream f(take, std::ios::binary);
    char magic[4] = {};
    f.read(magic, 4);
    EXPECT_EQ(std::string(magic, 4), "MThd");
}

TEST(CliJack, DestinationThatVanishesIsNamedInTheSummary)
{
    PrivateJack jack;
    ASSERT_TRUE(jack.Ready());
    Proc cli(Cli({"perform", kDemo, "--output", "0", "--tempo-scale", "8", "-v"}), jack.Env());
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    jack.KillSink();
    EXPECT_EQ(cli.Wait(60'000), 1) << cli.Err();
    const std::string out = cli.Out(), err = cli.Err();
    EXPECT_NE(out.find("Summary:"), std::string::npos) << out;
    EXPECT_NE(out.find("output    qxsink:input went away at 0:0"), std::string::npos) << out;
    // -v shows the library's own report; the last line says what failed.
    const auto lines = Lines(err);
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(err.find("MIDI out device 0 went away"), std::string::npos) << err;
    EXPECT_EQ(lines.back(), "quavix perform: MIDI output 0 (qxsink:input) went away during the performance") << err;
}

// thru and record-midi run on and name the device that went, in the summary and status.
TEST(CliJack, PeerThatVanishesUnderThruOrRecordingIsNamed)
{
    const struct {
        std::vector<std::string> args;
        bool bSink;
        std::string says;
    } cases[] = {
        {{"thru", "--in", "0", "--out", "0", "--seconds", "4"}, true, "MIDI output 0 (qxsink:input) went away at 0:0"},
        {{"record-midi", "--in", "0", Temp("vanished-take.mid"), "--seconds", "4"}, false,
         "MIDI input 0 (qxsource:out) went away at 0:0"},
    };
    for (const auto& c : cases) {
        PrivateJack jack;
        ASSERT_TRUE(jack.Ready());
        Proc cli(Cli(c.args), jack.Env());
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));
        c.bSink ? jack.KillSink() : jack.KillSource();
        EXPECT_EQ(cli.Wait(60'000), 1) << cli.Err();
        EXPECT_NE(cli.Out().find("  " + c.says), std::string::npos) << cli.Out();
        const auto lines = Lines(cli.Err());
        ASSERT_EQ(lines.size(), 1u) << cli.Err();
        EXPECT_NE(lines[0].find(c.says), std::string::npos) << lines[0];
    }
}
