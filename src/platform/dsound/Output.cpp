#include "platform/dsound/QXOutput.h"

#include "platform/backends/QXBackend.h"

#include <map>
#include <new>

namespace qxplat {
namespace ds {

namespace {

std::mutex& RegistryLock()
{
    static std::mutex* s = new std::mutex; // outlives outputs released at exit
    return *s;
}

std::map<int, Output*>& Registry()
{
    static auto* s = new std::map<int, Output*>;
    return *s;
}

} // namespace

Output::Output(int n, DWORD dwRate, Resampler resampler, std::unique_ptr<AudioOutPort> port)
    : m_n(n), m_port(std::move(port)), m_mixer(dwRate, resampler)
{
}

Output::~Output()
{
    m_mixer.StopThread();
    if (m_port) m_port->Stop();
}

Output* Output::Acquire(int n)
{
    std::lock_guard<std::mutex> lock(RegistryLock());
    auto& registry = Registry();
    if (auto it = registry.find(n); it != registry.end()) {
        ++it->second->m_users;
        return it->second;
    }
    std::unique_ptr<AudioOutPort> port;
    if (CurrentBackend().OpenAudioOut(n, port) != MMSYSERR_NOERROR || !port) return nullptr;
    const DWORD rate = port->Rate();
    Output* out = new Output(n, rate, ResamplerFromEnvironment(), std::move(port));
    registry[n] = out;
    return out;
}

Output* Output::Offline(DWORD dwRate, Resampler resampler)
{
    return new Output(-1, dwRate, resampler, nullptr);
}

void Output::Release()
{
    std::lock_guard<std::mutex> lock(RegistryLock());
    if (--m_users > 0) return;
    if (m_n >= 0) Registry().erase(m_n);
    delete this;
}

void Output::Activate(bool bPrimary)
{
    if (!m_port) return;
    std::lock_guard<std::mutex> lock(m_lock);
    if (!m_mixer.ThreadRunning()) {
        m_port->Start();
        m_mixer.StartThread(m_port.get());
    }
    if (bPrimary) m_port->PrimaryStarted();
}

} // namespace ds
} // namespace qxplat
