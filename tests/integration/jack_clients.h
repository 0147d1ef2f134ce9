// The other JACK clients of the integration tests: programs that ship with jackd2, run
// for the length of a test, and a client of the test's own that watches the server.
#ifndef QUAVIX_TESTS_INTEGRATION_JACK_CLIENTS_H
#define QUAVIX_TESTS_INTEGRATION_JACK_CLIENTS_H

#include <jack/jack.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace jackclients {

// A program run for the length of a test, its output going to a file.
class Child {
public:
    Child(std::vector<std::string> argv, const std::string& outFile)
    {
        std::vector<char*> args;
        for (auto& a : argv) args.push_back(a.data());
        args.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_adddup2(&fa, 1, 2);
        if (posix_spawnp(&m_pid, args[0], &fa, nullptr, args.data(), environ) != 0) m_pid = -1;
        posix_spawn_file_actions_destroy(&fa);
    }
    ~Child() { Stop(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Its exit status, or -1 when it did not end by itself within the limit (then killed).
    int Wait(std::chrono::seconds limit)
    {
        if (m_pid <= 0) return -1;
        const auto end = std::chrono::steady_clock::now() + limit;
        int status = 0;
        while (waitpid(m_pid, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > end) {
                Stop();
                return -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    void Stop()
    {
        if (m_pid <= 0) return;
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
    bool Started() const { return m_pid > 0; }

private:
    pid_t m_pid = -1;
};

// A client of the test's own: counts the server's xruns, and answers questions about
// ports and connections.
class Probe {
public:
    explicit Probe(const char* name = "qxprobe")
    {
        for (int i = 0; i < 100 && m_client == nullptr; ++i) // a server just started may not answer yet
            if ((m_client = jack_client_open(name, JackNoStartServer, nullptr)) == nullptr)
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (m_client == nullptr) return;
        jack_set_xrun_callback(
            m_client, [](void* a) { return static_cast<Probe*>(a)->m_xruns.fetch_add(1), 0; }, this);
        if (jack_activate(m_client) != 0) {
            jack_client_close(m_client);
            m_client = nullptr;
        }
    }
    ~Probe()
    {
        if (m_client != nullptr) jack_client_close(m_client);
    }
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;

    jack_client_t* Client() const { return m_client; }
    int Xruns() const { return m_xruns.load(); }
    bool Exists(const std::string& port) const { return jack_port_by_name(m_client, port.c_str()) != nullptr; }
    bool WaitExists(const std::string& port) const
    {
        for (int i = 0; i < 250; ++i) {
            if (Exists(port)) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }
    // The ports a port is connected to (a new connection shows from the next cycle).
    std::vector<std::string> Connections(const std::string& port) const
    {
        std::vector<std::string> out;
        jack_port_t* p = jack_port_by_name(m_client, port.c_str());
        for (int i = 0; i < 50 && p != nullptr && out.empty(); ++i) {
            if (const char** names = jack_port_get_all_connections(m_client, p)) {
                for (const char** n = names; *n != nullptr; ++n) out.emplace_back(*n);
                jack_free(names);
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        }
        return out;
    }

private:
    jack_client_t* m_client = nullptr;
    std::atomic<int> m_xruns{0};
};

} // namespace jackclients

#endif // QUAVIX_TESTS_INTEGRATION_JACK_CLIENTS_H
