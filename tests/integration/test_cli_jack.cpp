// The quavix program against JACK servers of its own that the tests start, kill and
// watch: a server that dies under a running command, a destination client that goes.
#include "harness.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using harness::Lines;
using harness::Temp;

// A private JACK server with a MIDI sink and a MIDI source client, all of which the test
// may kill.
struct PrivateJack {
    harness::JackServer server{"quavix-cli-test"};
    harness::Child sink{{"jack_midi_dump", "qxsink"}, "/dev/null", "", server.Env()};
    harness::Child source{{"jack_midiseq", "qxsource", "24000", "0", "60", "8000"}, "/dev/null", "", server.Env()};
    bool Ready() const { return server.Ready() && server.WaitForPort("qxsink:input") && server.WaitForPort("qxsource:out"); }
};

// The quavix program on a private server, its output in files.
class Cli {
public:
    Cli(std::vector<std::string> args, const PrivateJack& jack) : m_proc(Args(std::move(args)), m_out, m_err, jack.server.Env()) {}
    ~Cli()
    {
        m_proc.Stop();
        std::remove(m_out.c_str());
        std::remove(m_err.c_str());
    }
    bool Started() const { return m_proc.Started(); }
    int Wait(std::chrono::milliseconds limit) { return m_proc.Wait(limit); }
    std::string Out() const { return harness::Slurp(m_out); }
    std::string Err() const { return harness::Slurp(m_err); }

private:
    static std::vector<std::string> Args(std::vector<std::string> args)
    {
        args.insert(args.begin(), QUAVIX_CLI_PATH);
        return args;
    }
    std::string m_out = Temp("out"), m_err = Temp("err");
    harness::Child m_proc;
};

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
        Cli cli(c.args, jack);
        ASSERT_TRUE(cli.Started());
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        const auto killed = Clock::now();
        jack.server.Kill();
        // The demo plays for 28 s and the others run until stopped; half a minute only
        // keeps a broken build from hanging here.
        const int status = cli.Wait(30s);
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
    EXPECT_EQ(harness::Slurp(take).substr(0, 4), "MThd");
    std::remove(take.c_str());
}

TEST(CliJack, DestinationThatVanishesIsNamedInTheSummary)
{
    PrivateJack jack;
    ASSERT_TRUE(jack.Ready());
    Cli cli({"perform", kDemo, "--output", "0", "--tempo-scale", "8", "-v"}, jack);
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    jack.sink.Kill(SIGKILL);
    EXPECT_EQ(cli.Wait(60s), 1) << cli.Err();
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
    const std::string take = Temp("vanished-take.mid");
    const struct {
        std::vector<std::string> args;
        bool bSink;
        std::string says;
    } cases[] = {
        {{"thru", "--in", "0", "--out", "0", "--seconds", "4"}, true, "MIDI output 0 (qxsink:input) went away at 0:0"},
        {{"record-midi", "--in", "0", take, "--seconds", "4"}, false,
         "MIDI input 0 (qxsource:out) went away at 0:0"},
    };
    for (const auto& c : cases) {
        PrivateJack jack;
        ASSERT_TRUE(jack.Ready());
        Cli cli(c.args, jack);
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));
        (c.bSink ? jack.sink : jack.source).Kill(SIGKILL);
        EXPECT_EQ(cli.Wait(60s), 1) << cli.Err();
        EXPECT_NE(cli.Out().find("  " + c.says), std::string::npos) << cli.Out();
        const auto lines = Lines(cli.Err());
        ASSERT_EQ(lines.size(), 1u) << cli.Err();
        EXPECT_NE(lines[0].find(c.says), std::string::npos) << lines[0];
    }
    std::remove(take.c_str());
}
