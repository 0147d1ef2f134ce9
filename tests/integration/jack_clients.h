// A JACK client of the test's own that watches the server the tests run on.
#ifndef QUAVIX_TESTS_INTEGRATION_JACK_CLIENTS_H
#define QUAVIX_TESTS_INTEGRATION_JACK_CLIENTS_H

#include "harness.h"

#include <gtest/gtest.h>
#include <jack/jack.h>

#include <atomic>
#include <string>
#include <vector>

namespace jackclients {

// A client of the test's own: counts the server's xruns, and answers questions about
// ports and connections.
class Probe {
public:
    explicit Probe(const char* name = "qxprobe")
    {
        // A server just started may not answer yet.
        if (!harness::Await([&] { return (m_client = jack_client_open(name, JackNoStartServer, nullptr)) != nullptr; }))
            return;
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
        return harness::Await([&] { return Exists(port); });
    }
    // The ports a port is connected to (a new connection shows from the next cycle).
    std::vector<std::string> Connections(const std::string& port) const
    {
        std::vector<std::string> out;
        jack_port_t* p = jack_port_by_name(m_client, port.c_str());
        harness::Await([&] {
            const char** names = p != nullptr ? jack_port_get_all_connections(m_client, p) : nullptr;
            for (const char** n = names; n != nullptr && *n != nullptr; ++n) out.emplace_back(*n);
            if (names != nullptr) jack_free(names);
            return p == nullptr || !out.empty();
        }, std::chrono::seconds(2));
        return out;
    }

    // The first audio port whose name matches the pattern, or "".
    std::string Find(const std::string& pattern, unsigned long flags) const
    {
        std::string name;
        if (const char** ports = jack_get_ports(m_client, pattern.c_str(), JACK_DEFAULT_AUDIO_TYPE, flags)) {
            if (ports[0] != nullptr) name = ports[0];
            jack_free(ports);
        }
        return name;
    }
    // Connects `out` to `in`, after taking whatever else fed `in` away from it.
    bool ConnectOnly(const std::string& out, const std::string& in) const
    {
        if (out.empty() || in.empty()) return false;
        if (const char** from = jack_port_get_all_connections(m_client, jack_port_by_name(m_client, in.c_str()))) {
            for (const char** p = from; *p != nullptr; ++p) jack_disconnect(m_client, *p, in.c_str());
            jack_free(from);
        }
        return jack_connect(m_client, out.c_str(), in.c_str()) == 0;
    }

private:
    jack_client_t* m_client = nullptr;
    std::atomic<int> m_xruns{0};
};

// A second output or input open beside a first has ports of its own (`port`_1, _2 and
// `port`2_1, 2_2); closing one takes its ports away and leaves the other's.
template <class First, class Second>
void ExpectPortsOfTheirOwn(const Probe& probe, const std::string& port, First& first, Second& second)
{
    EXPECT_TRUE(probe.Exists(port + "2_1"));
    EXPECT_TRUE(probe.Exists(port + "2_2"));
    first.reset();
    EXPECT_FALSE(probe.Exists(port + "_1"));
    EXPECT_FALSE(probe.Exists(port + "_2"));
    EXPECT_TRUE(probe.Exists(port + "2_1"));
    second.reset();
    EXPECT_FALSE(probe.Exists(port + "2_1"));
}

} // namespace jackclients

#endif // QUAVIX_TESTS_INTEGRATION_JACK_CLIENTS_H
