// The quavix program against JACK servers of its own that the tests start and kill: a
// server that dies under a running command, a destination or source client that goes.
#include "harness.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using harness::Lines;
using harness::Slurp;

const std::string kDemo = std::string(QUAVIX_SOURCE_DIR) + "/examples/quavix-demo.mid";

// A private JACK server with a MIDI sink and a MIDI source client, which the test may
// kill, and the quavix program running on it once they are up.
struct PrivateJack {
    harness::JackServer server{"quavix-cli-test"};
    harness::Child sink{{"jack_midi_dump", "qxsink"}, "/dev/null", "", server.Env()};
    harness::Child source{{"jack_midiseq", "qxsource", "24000", "0", "60", "8000"}, "/dev/null", "", server.Env()};
    const harness::TempFile out{"out"}, err{"err"};
    std::unique_ptr<harness::Child> cli;

    bool Run(std::vector<std::string> args)
    {
        if (!server.Ready() || !server.WaitForPort("qxsink:input") || !server.WaitForPort("qxsource:out")) return false;
        args.insert(args.begin(), QUAVIX_CLI_PATH);
        cli = std::make_unique<harness::Child>(args, out, err, server.Env());
        // Running: its summary line or its first progress has been written.
        return cli->Started() && harness::Await([&] { return !Slurp(out).empty(); }, 60s);
    }
};

} // namespace

// Each command stops at once with one line when its server dies under it, rather than
// playing on (the demo lasts 28 s), reporting success or running until Ctrl-C.
TEST(CliJack, ServerThatDiesStopsEveryCommandWithOneLine)
{
    const harness::TempFile take("take.mid");
    const struct {
        std::vector<std::string> args;
        const char* says;
    } cases[] = {
        {{"perform", kDemo, "--output", "0"}, "the performance stopped at"},
        {{"record-midi", "--in", "0", take}, "recording stopped after"},
        {{"thru", "--in", "0", "--out", "0"}, "thru stopped after"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0]);
        PrivateJack jack;
        ASSERT_TRUE(jack.Run(c.args)) << "the private JACK server, its clients or quavix did not come up";
        jack.server.Kill();
        EXPECT_EQ(jack.cli->Wait(20s), 1) << Slurp(jack.err) << "\nit ran on after its server died";
        const auto lines = Lines(Slurp(jack.err));
        ASSERT_EQ(lines.size(), 1u) << Slurp(jack.err);
        EXPECT_NE(lines[0].find("quavix " + c.args[0] + ": the JACK server went away; " + c.says), std::string::npos)
            << lines[0];
        EXPECT_EQ(Slurp(jack.out).find("Summary"), std::string::npos) << Slurp(jack.out);
    }
    EXPECT_EQ(Slurp(take).substr(0, 4), "MThd") << "what the take held up to then is written";
}

// perform fails naming the destination that went; thru and record-midi run on and name
// the device that went, in the summary and the status.
TEST(CliJack, PeerThatVanishesIsNamedInTheSummary)
{
    const harness::TempFile take("vanished-take.mid");
    const struct {
        std::vector<std::string> args;
        bool bSink;
        std::string summary, last;
    } cases[] = {
        {{"perform", kDemo, "--output", "0", "--tempo-scale", "8", "-v"}, true, "output    qxsink:input went away at 0:0",
         "quavix perform: MIDI output 0 (qxsink:input) went away during the performance"},
        {{"thru", "--in", "0", "--out", "0", "--seconds", "4"}, true, "  MIDI output 0 (qxsink:input) went away at 0:0",
         "MIDI output 0 (qxsink:input) went away at 0:0"},
        {{"record-midi", "--in", "0", take, "--seconds", "4"}, false, "  MIDI input 0 (qxsource:out) went away at 0:0",
         "MIDI input 0 (qxsource:out) went away at 0:0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0]);
        PrivateJack jack;
        ASSERT_TRUE(jack.Run(c.args));
        // A peer killed in the command's first moments can leave it hanging (a fault of its
        // own, not this test's): the peer goes a second in.
        std::this_thread::sleep_for(1200ms);
        (c.bSink ? jack.sink : jack.source).Kill(SIGKILL);
        EXPECT_EQ(jack.cli->Wait(60s), 1) << Slurp(jack.err);
        EXPECT_NE(Slurp(jack.out).find(c.summary), std::string::npos) << Slurp(jack.out);
        const auto lines = Lines(Slurp(jack.err));
        ASSERT_FALSE(lines.empty());
        EXPECT_NE(lines.back().find(c.last), std::string::npos) << Slurp(jack.err);
        if (c.args[0] != "perform") EXPECT_EQ(lines.size(), 1u) << Slurp(jack.err);
        else EXPECT_NE(Slurp(jack.err).find("MIDI out device 0 went away"), std::string::npos) << "-v shows the library's report";
    }
}
