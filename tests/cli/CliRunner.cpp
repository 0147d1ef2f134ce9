#include "CliRunner.h"

#include <gtest/gtest.h>

#include <dirent.h>

CliResult RunCli(const std::vector<std::string>& args, const std::vector<std::string>& env,
                 const Interrupt& interrupt, long fileSizeLimit)
{
    const harness::TempFile out("stdout"), err("stderr");
    std::vector<std::string> argv{QUAVIX_CLI_PATH};
    if (fileSizeLimit > 0) argv.insert(argv.begin(), {"prlimit", "--fsize=" + std::to_string(fileSizeLimit), "--"});
    argv.insert(argv.end(), args.begin(), args.end());
    // The first of a name counts; no SoundFont, so that MIDI outputs are the same on any machine.
    std::vector<std::string> vars = env;
    vars.insert(vars.end(), {"QUAVIX_BACKEND=virtual", "QUAVIX_SOUNDFONT="});
    harness::Child child(argv, out, err, vars);
    const auto start = std::chrono::steady_clock::now();
    if ((interrupt.ms > 0 || interrupt.when) && harness::Await([&] {
            return child.Ended() || (interrupt.when ? interrupt.when()
                                                    : std::chrono::steady_clock::now() - start >=
                                                          std::chrono::milliseconds(interrupt.ms));
        }, std::chrono::seconds(60)))
        child.Signal(interrupt.signal);
    // A generous limit only keeps a stuck child from hanging the suite.
    const int status = child.Wait(std::chrono::seconds(60));
    return {status, harness::Slurp(out), harness::Slurp(err)};
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
    const std::string s = harness::Slurp(path);
    return {s.begin(), s.end()};
}

std::vector<std::string> DirEntries(const std::string& dir)
{
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (const dirent* e = readdir(d))
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") names.push_back(e->d_name);
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
