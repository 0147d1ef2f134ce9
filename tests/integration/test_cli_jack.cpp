// The quavix program against JACK servers of its own that the tests start and kill: a
// server that dies under a running command, a destination or source client that goes.
#include "harness.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using harness::Slurp;

// Each command on a private JACK server with a MIDI sink and a MIDI source client, once
// they and it are up, until its server, sink or source is killed under it. When the
// server dies, each command stops at once with one line rather than playing on (the demo
// lasts 28 s), reporting success or running until Ctrl-C. When a peer goes (a second in:
// one killed in a command's first moments can leave it hanging, a fault of its own),
// perform fails naming the destination; thru and record-midi run on and name the device
// that went, in the summary and the status.
TEST(CliJack, ServerOrPeerThatGoesStopsOrIsNamed)
{
    const std::string demo = QUAVIX_SOURCE_DIR "/examples/quavix-demo.mid";
    const harness::TempFile take("take.mid");
    const struct {
        std::vector<std::string> args;
        const char* kill; // server, sink or source
        std::string summary, last;
    } cases[] = {
        {{"perform", demo, "--output", "0"}, "server", "", "the JACK server went away; the performance stopped at"},
        {{"record-midi", "--in", "0", take}, "server", "", "the JACK server went away; recording stopped after"},
        {{"thru", "--in", "0", "--out", "0"}, "server", "", "the JACK server went away; thru stopped after"},
        {{"perform", demo, "--output", "0", "--tempo-scale", "8", "-v"}, "sink", "output    qxsink:input went away at 0:0",
         "MIDI output 0 (qxsink:input) went away during the performance"},
        {{"thru", "--in", "0", "--out", "0", "--seconds", "3"}, "sink", "  MIDI output 0 (qxsink:input) went away at 0:0",
         "MIDI output 0 (qxsink:input) went away at 0:0"},
        {{"record-midi", "--in", "0", take, "--seconds", "3"}, "source", "  MIDI input 0 (qxsource:out) went away at 0:0",
         "MIDI input 0 (qxsource:out) went away at 0:0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0] + " losing its " + c.kill);
        harness::JackServer server{"quavix-cli-test"};
        harness::Child sink{{"jack_midi_dump", "qxsink"}, "/dev/null", "", server.Env()};
        harness::Child source{{"jack_midiseq", "qxsource", "24000", "0", "60", "8000"}, "/dev/null", "", server.Env()};
        const harness::TempFile out{"out"}, err{"err"};
        ASSERT_TRUE(server.Ready() && server.WaitForPort("qxsink:input") && server.WaitForPort("qxsource:out"));
        std::vector<std::string> args{QUAVIX_CLI_PATH};
        args.insert(args.end(), c.args.begin(), c.args.end());
        harness::Child cli(args, out, err, server.Env());
        // Running: its summary line or its first progress has been written.
        ASSERT_TRUE(harness::Await([&] { return !Slurp(out).empty(); }, 60s)) << "quavix did not come up";
        if (c.kill == std::string("server")) {
            server.Kill();
        } else {
            std::this_thread::sleep_for(1200ms);
            (c.kill == std::string("sink") ? sink : source).Kill(SIGKILL);
        }
        EXPECT_EQ(cli.Wait(c.summary.empty() ? 20s : 60s), 1) << Slurp(err) << "\nit ran on";
        const auto lines = harness::Lines(Slurp(err));
        ASSERT_FALSE(lines.empty());
        EXPECT_NE(lines.back().find("quavix " + c.args[0] + ": " + c.last), std::string::npos) << Slurp(err);
        EXPECT_EQ(Slurp(out).find(c.summary.empty() ? "Summary" : c.summary) == std::string::npos, c.summary.empty())
            << Slurp(out);
        if (c.args[0] != "perform" || c.summary.empty()) EXPECT_EQ(lines.size(), 1u) << Slurp(err);
        else EXPECT_NE(Slurp(err).find("MIDI out device 0 went away"), std::string::npos) << "-v shows the library's report";
    }
    EXPECT_EQ(Slurp(take).substr(0, 4), "MThd") << "what the take held up to then is written";
}
