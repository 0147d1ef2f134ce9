// quavix devices: what the backend offers, as the manager sees it.
#include "Cli.h"
#include "Commands.h"

#include "platform/backends/synth/QXSynth.h"

#include <cstdio>

namespace qxcli {

int RunDevices(int argc, char** argv)
{
    Args args("devices", {});
    if (!args.Parse(argc, argv)) return kExitUsage;
    if (args.Help()) return PrintHelp("devices");
    if (!args.Positional().empty()) return Fail("devices", "takes no arguments, not '" + args.Positional()[0] + "'", kExitUsage);

    Session session;
    if (!session.Begin(args, QX_INIT_MIDI | QX_INIT_WAVE)) return session.FailStatus();
    std::printf("Backend: %s\n", session.BackendText().c_str());
    std::printf("%-5s %-4s %3s  %-14s %-36s %-8s %s\n", "TYPE", "DIR", "#", "SYSTEM", "NAME", "ENABLED", "FORMAT");
    const char* types[2] = {"MIDI", "wave"};
    const char* dirs[2] = {"in", "out"};
    for (int t = 0; t < 2; ++t)
        for (int d = 0; d < 2; ++d) {
            const int n = session->GetDeviceCount(t, d);
            const std::string system = session.SystemOf(t);
            if (n == 0) std::printf("%-5s %-4s %3s  %-14s %s\n", types[t], dirs[d], "-", system.c_str(), "(none)");
            for (int i = 0; i < n; ++i) {
                const std::string name = session.DeviceName(t, d, i);
                const char* enabled = session->GetDevice(t, d, i) == nullptr ? "n/a"
                                      : session->IsDeviceEnabled(t, d, i)   ? "yes"
                                                                             : "no";
                std::string format = "none";
                if (QX_DevFormat* f = session->GetDeviceFormat(t, d, i)) {
                    CQXDevice::FillFormatString(reinterpret_cast<WAVEFORMATEX*>(f), format);
                } else if (t == QX_DEVTYPE_WAVE && d == QX_DEVDIR_IN) {
                    format = std::string(kRecordFormat) + " (what quavix record uses unless --format says)";
                } else if (t == QX_DEVTYPE_WAVE) {
                    // Not set yet: the one the device takes when it opens.
                    WAVEFORMATEX wfx{};
                    CQXDevice::FillFormat(&wfx, CWaveOut::GetDefaultFormat());
                    CQXDevice::FillFormatString(&wfx, format);
                }
                std::printf("%-5s %-4s %3d  %-14s %-36s %-8s %s\n", types[t], dirs[d], i, system.c_str(), name.c_str(),
                            enabled, format.c_str());
            }
        }
    const std::string noSynth = qxplat::SynthUnavailableReason();
    if (!noSynth.empty()) std::printf("No GM synth: %s\n", noSynth.c_str());
    return kExitOk;
}

} // namespace qxcli
