// The subcommands of quavix; each takes its own name as argv[0].
#ifndef QUAVIX_TOOLS_COMMANDS_H
#define QUAVIX_TOOLS_COMMANDS_H

namespace qxcli {

int RunDevices(int argc, char** argv);
int RunPerform(int argc, char** argv);
int RunRender(int argc, char** argv);
int RunPlay(int argc, char** argv);
int RunRecord(int argc, char** argv);
int RunSyncSlave(int argc, char** argv);
int RunThru(int argc, char** argv);
int RunRecordMidi(int argc, char** argv);
int RunSend(int argc, char** argv);
int RunPanic(int argc, char** argv);

} // namespace qxcli

#endif // QUAVIX_TOOLS_COMMANDS_H
