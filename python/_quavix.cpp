// The Python module's native half: the manager's calls, with the GIL let go while the
// library works, and the trampolines through which the library's threads call Python.
// Everything Pythonic on top (the context manager, device objects, logging) is in
// quavix/__init__.py.
#include <quavix/Quavix.h>

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace py = pybind11;

namespace {

// ---------------------------------------------------------------- events

DWORD PackMessage(const py::handle& message)
{
    if (py::isinstance<py::int_>(message)) return message.cast<DWORD>();
    DWORD msg = 0;
    int shift = 0;
    for (const py::handle b : message) {
        if (shift > 16) throw py::value_error("a MIDI short message has at most 3 bytes");
        const int v = b.cast<int>();
        if (v < 0 || v > 255) throw py::value_error("MIDI bytes are 0 to 255");
        msg |= static_cast<DWORD>(v) << shift;
        shift += 8;
    }
    if (shift == 0 || (msg & 0x80) == 0) throw py::value_error("a MIDI short message starts with a status byte");
    return msg;
}

struct Midi {
    DWORD time = 0;
    DWORD msg = 0;
    int device = 0;
    py::bytes Bytes() const
    {
        // As many bytes as the status byte's message has.
        const BYTE status = static_cast<BYTE>(msg & 0xFF);
        int n = 3;
        if (status >= 0xF4 || (status & 0xF0) == 0xC0 || (status & 0xF0) == 0xD0 || status == 0xF1 || status == 0xF3) n = 2;
        if (status >= 0xF6) n = 1;
        const char b[3] = {static_cast<char>(msg & 0xFF), static_cast<char>((msg >> 8) & 0xFF),
                           static_cast<char>((msg >> 16) & 0xFF)};
        return py::bytes(b, static_cast<size_t>(n));
    }
};

struct SysEx {
    DWORD time = 0;
    std::string data;
    int device = 0;
};

struct Wave {
    DWORD time = 0;
    std::string file;
    int device = 0;
    int track = 1;
    double volume = 0.0; // dB, 0 = as recorded
    double pan = 0.0;    // -1 left .. 1 right
    DWORD rate = 0;      // sample rate to play at; 0 = the file's own
};

QX_DSParams DSParams(double volumeDb, double pan, DWORD rate)
{
    QX_DSParams ds{};
    const double v = volumeDb > 0 ? 0 : volumeDb < -100 ? -100 : volumeDb;
    const double p = pan < -1 ? -1 : pan > 1 ? 1 : pan;
    ds.lVolume = static_cast<LONG>(v * 100.0);
    ds.lPan = static_cast<LONG>(p * 10000.0);
    ds.lFrequency = static_cast<LONG>(rate);
    return ds;
}

// A buffer a wave input recorded, copied once into `data`; `array` views that copy.
struct WaveBuffer {
    int device = 0;
    py::bytes data;
    int channels = 0;
    int bits = 0;
    int rate = 0;
    py::object Array() const
    {
        if (bits != 8 && bits != 16 && bits != 32) throw py::value_error("no numpy type for " + std::to_string(bits) + "-bit samples");
        py::module_ np = py::module_::import("numpy");
        py::object a = np.attr("frombuffer")(data, bits == 8 ? "u1" : bits == 16 ? "<i2" : "<i4");
        return a.attr("reshape")(-1, channels > 0 ? channels : 1);
    }
};

// Builds the library's event from one Python event; null for what is not an event.
CQXEventData* MakeEvent(const py::handle& h, int nPerformance)
{
    std::unique_ptr<CQXEventData> e(new CQXEventData);
    if (py::isinstance<Midi>(h)) {
        const auto& m = h.cast<const Midi&>();
        e->SetMidiData(m.msg);
        e->SetDevice(m.device);
        e->SetTimeStamp(m.time);
    } else if (py::isinstance<SysEx>(h)) {
        const auto& s = h.cast<const SysEx&>();
        e->SetSysExData(reinterpret_cast<const BYTE*>(s.data.data()), static_cast<DWORD>(s.data.size()));
        if (e->m_nType != QX_EVENT_SYSEX) return nullptr;
        e->SetDevice(s.device);
        e->SetTimeStamp(s.time);
    } else if (py::isinstance<Wave>(h)) {
        const auto& w = h.cast<const Wave&>();
        auto* params = new QX_WaveParams{};
        params->nPerformance = nPerformance;
        params->nTrack = w.track;
        params->dsParams = DSParams(w.volume, w.pan, w.rate);
        // The event's parameters point at the name until a player has opened the file,
        // which may be after the event is gone: each name is kept for the process.
        static std::map<std::string, std::unique_ptr<std::string>> names; // with the GIL
        auto& name = names[w.file];
        if (!name) name = std::make_unique<std::string>(w.file);
        params->dsParams.lpszFileName = name->c_str();
        e->SetWaveData(params); // the event owns them now
        e->SetDevice(w.device);
        e->SetTimeStamp(w.time);
    } else {
        throw py::type_error("a performance returns quavix.Midi, quavix.SysEx and quavix.Wave events, not " +
                             py::repr(h.get_type()).cast<std::string>());
    }
    return e.release();
}

// ---------------------------------------------------------------- reports

// Every notification's text, numbered, so that a call that failed can say why.
std::mutex g_reportLock;
std::deque<std::pair<uint64_t, std::string>> g_reports;
uint64_t g_reportCount = 0;
py::object* g_notifyCallback = nullptr;  // the package's handler, called with the GIL
py::object* g_errorCallback = nullptr;   // reports a Python exception raised in a callback
std::atomic<bool> g_live{true};          // false once the interpreter is going

uint64_t ReportCount()
{
    std::lock_guard<std::mutex> lock(g_reportLock);
    return g_reportCount;
}

std::string ReportsSince(uint64_t n)
{
    std::lock_guard<std::mutex> lock(g_reportLock);
    std::string text;
    for (const auto& [number, line] : g_reports)
        if (number > n) text += (text.empty() ? "" : "; ") + line;
    return text;
}

#if PY_VERSION_HEX >= 0x030D0000
bool CanCallPython() { return g_live.load() && Py_IsInitialized() && !Py_IsFinalizing(); }
#else
bool CanCallPython() { return g_live.load() && Py_IsInitialized() && !_Py_IsFinalizing(); }
#endif

void NotifyProc(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice)
{
    std::string text;
    CQXNotify::FormatNotification(dwCode, dwValue, dwDevice, text);
    {
        std::lock_guard<std::mutex> lock(g_reportLock);
        g_reports.emplace_back(++g_reportCount, text);
        if (g_reports.size() > 32) g_reports.pop_front();
    }
    if (!CanCallPython()) return;
    py::gil_scoped_acquire gil;
    if (g_notifyCallback == nullptr) return;
    try {
        (*g_notifyCallback)(dwCode, dwValue, text);
    } catch (py::error_already_set& e) {
        e.discard_as_unraisable("quavix notification callback");
    }
}

// With the GIL held: hands a callback's exception to the package (logging, and the
// performance's record) rather than letting it end the library's thread.
void ReportCallbackError(py::error_already_set& e, const char* where, const py::object& owner)
{
    if (g_errorCallback != nullptr) {
        try {
            py::object trace = e.trace() ? py::reinterpret_borrow<py::object>(e.trace()) : py::none();
            (*g_errorCallback)(where, e.value(), trace, owner);
            return;
        } catch (py::error_already_set& inner) {
            inner.discard_as_unraisable(where);
        } catch (std::exception&) { // what the handler was given could not be passed: report below
        }
    }
    e.discard_as_unraisable(where);
}

struct QuavixError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Runs a call of the library without the GIL (its threads may be waiting for it in a
// callback) and raises QuavixError, with the reports it made, where it returns 0.
template <class F>
auto Call(const char* what, F f)
{
    const uint64_t before = ReportCount();
    decltype(f()) r;
    {
        py::gil_scoped_release release;
        r = f();
    }
    if (r == 0) {
        const std::string why = ReportsSince(before);
        throw QuavixError(std::string(what) + " failed" + (why.empty() ? "" : ": " + why));
    }
    return r;
}

CQuavix* Manager()
{
    CQuavix* q = CQuavix::GetQuavix();
    if (q == nullptr) throw QuavixError("Quavix is not initialised (use quavix.Quavix())");
    return q;
}

// ---------------------------------------------------------------- callbacks

// A Python callable the library calls back, known to the library by its number: a
// call that comes after it has ended (a recording stopped while its call waited for the
// GIL) finds nothing. All of these are touched with the GIL only.
struct Callback {
    py::object fn;
    py::object owner; // what errors are reported against
    int tag = 0;
};
std::map<DWORD_PTR, std::unique_ptr<Callback>> g_callbacks;
DWORD_PTR g_nextCallback = 0;
// When each performance ended, by tag, on the clock: the same moment in every render.
std::map<int, DWORD> g_endedAt;
std::map<int, DWORD_PTR> g_recordings; // tag to callback

Callback* Find(DWORD_PTR id)
{
    auto it = g_callbacks.find(id);
    return it != g_callbacks.end() ? it->second.get() : nullptr;
}

DWORD_PTR Keep(py::object fn, py::object owner)
{
    auto c = std::make_unique<Callback>();
    c->fn = std::move(fn);
    c->owner = std::move(owner);
    g_callbacks[++g_nextCallback] = std::move(c);
    return g_nextCallback;
}

void End(DWORD_PTR id)
{
    auto it = g_callbacks.find(id);
    if (it == g_callbacks.end()) return;
    if (it->second->tag != 0) g_endedAt.emplace(it->second->tag, QXClockMs());
    g_callbacks.erase(it);
}

int PerformanceProc(DWORD_PTR dwUser, int nTag, DWORD dwStart, DWORD dwEnd)
{
    if (!CanCallPython()) return 0;
    py::gil_scoped_acquire gil;
    Callback* c = Find(dwUser);
    if (c == nullptr) return 0;
    // The callable may stop its own performance, which frees c: only copies from here.
    const py::object fn = c->fn, owner = c->owner;
    const int tag = c->tag;
    CQXEventList list;
    // What the callback raised, or a bad event it returned: reported, and the performance ends.
    auto fail = [&](py::error_already_set& e) {
        for (POSITION p = list.GetHeadPosition(); p != nullptr;) delete list.GetNext(p);
        ReportCallbackError(e, "performance", owner);
        End(dwUser);
        return 0;
    };
    try {
        py::object events;
        if (nTag < 0) { // a sync notification, for performances that follow a clock
            if (!py::hasattr(fn, "sync")) return 1;
            events = fn.attr("sync")(nTag, dwStart, dwEnd);
            if (events.is_none()) return 1;
        } else {
            events = fn(dwStart, dwEnd);
            if (events.is_none()) {
                End(dwUser);
                return 0;
            }
        }
        for (const py::handle h : events) {
            CQXEventData* e = MakeEvent(h, tag);
            if (e != nullptr && list.AddTail(e) == nullptr) delete e;
        }
    } catch (py::error_already_set& e) {
        return fail(e);
    } catch (py::builtin_exception& bad) { // as the Python error it is
        bad.set_error();
        py::error_already_set e;
        return fail(e);
    }
    {
        py::gil_scoped_release release;
        if (CQuavix* q = CQuavix::GetQuavix()) q->PlayBuffer(list);
    }
    return 1;
}

int RecordingProc(DWORD_PTR dwUser, int, CQXEventData* pEvent)
{
    if (!CanCallPython()) return 1;
    QX_DevFormat format{};
    if (pEvent->m_nType == QX_EVENT_WAVEHEADER)
        if (CQuavix* q = CQuavix::GetQuavix())
            if (QX_DevFormat* f = q->GetDeviceFormat(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, pEvent->m_nDevice)) format = *f;
    py::gil_scoped_acquire gil;
    Callback* c = Find(dwUser);
    if (c == nullptr) return 1;
    const py::object fn = c->fn, owner = c->owner; // the callable may stop its recording
    try {
        py::object arg;
        switch (pEvent->m_nType) {
        case QX_EVENT_MIDI:
            arg = py::cast(Midi{pEvent->m_dwTimeStamp, static_cast<DWORD>(pEvent->m_dwData), pEvent->m_nDevice});
            break;
        case QX_EVENT_SYSEX:
            arg = py::cast(SysEx{pEvent->m_dwTimeStamp,
                                 std::string(reinterpret_cast<const char*>(pEvent->m_dwData), pEvent->m_dwLength),
                                 pEvent->m_nDevice});
            break;
        case QX_EVENT_WAVEHEADER: {
            const auto* h = reinterpret_cast<const WAVEHDR*>(pEvent->m_dwData);
            arg = py::cast(WaveBuffer{pEvent->m_nDevice, py::bytes(h->lpData, h->dwBytesRecorded), format.nChannels,
                                      format.wBitsPerSample, static_cast<int>(format.nSamplesPerSec)});
            break;
        }
        default:
            return 1;
        }
        fn(arg);
    } catch (py::error_already_set& e) {
        ReportCallbackError(e, "recording", owner);
    }
    return 1;
}

// play_wave_file's done callbacks, by number: a player the library dropped without
// calling back leaves only its entry behind.
std::map<DWORD_PTR, py::object> g_done;
DWORD_PTR g_nextDone = 0;

void DoneProc(DWORD_PTR dwUser, DWORD dwPlayer)
{
    if (!CanCallPython()) return;
    py::gil_scoped_acquire gil;
    auto it = g_done.find(dwUser);
    if (it == g_done.end()) return;
    py::object fn = std::move(it->second);
    g_done.erase(it);
    try {
        fn(dwPlayer);
    } catch (py::error_already_set& e) {
        ReportCallbackError(e, "play_wave_file done", py::none());
    }
}

// ---------------------------------------------------------------- devices

std::string DeviceName(int type, int dir, int n)
{
    if (type == QX_DEVTYPE_WAVE && dir == QX_DEVDIR_OUT) {
        const char* d = CWaveOut::DSGetDescription(n);
        return d != nullptr ? d : "";
    }
    QX_DevCaps caps{};
    if (!Manager()->GetDeviceCaps(type, dir, n, &caps)) return "";
    const char* name = type == QX_DEVTYPE_MIDI ? (dir == QX_DEVDIR_IN ? caps.midiIn.szPname : caps.midiOut.szPname)
                                               : caps.waveIn.szPname;
    return std::string(name, strnlen(name, MAXPNAMELEN));
}

// (rate, bits, channels); zeros for a device without a wave format.
std::tuple<DWORD, WORD, WORD> GetFormat(int type, int dir, int n)
{
    QX_DevFormat* f = Manager()->GetDeviceFormat(type, dir, n);
    if (f == nullptr) return {0, 0, 0};
    return {f->nSamplesPerSec, f->wBitsPerSample, f->nChannels};
}

QX_DevFormat MakeFormat(DWORD rate, WORD bits, WORD channels)
{
    QX_DevFormat f{};
    f.wFormatTag = WAVE_FORMAT_PCM;
    f.nChannels = channels;
    f.nSamplesPerSec = rate;
    f.wBitsPerSample = bits;
    f.nBlockAlign = static_cast<WORD>(channels * bits / 8);
    f.nAvgBytesPerSec = rate * f.nBlockAlign;
    return f;
}

// ---------------------------------------------------------------- wave files

class WaveFileReader {
public:
    explicit WaveFileReader(const std::string& path)
    {
        m_file.SetFilename(path.c_str());
        Call("opening the wave file", [&] { return m_file.Open(0); });
    }
    py::tuple Format()
    {
        QX_DevFormat* f = m_file.GetFormat();
        return py::make_tuple(f->nSamplesPerSec, f->wBitsPerSample, f->nChannels);
    }
    long Frames()
    {
        QX_DevFormat* f = m_file.GetFormat();
        return f->nBlockAlign != 0 ? m_file.GetDataSize() / f->nBlockAlign : 0;
    }
    // The bytes of up to `frames` more frames; b"" at the end.
    py::bytes Read(long frames)
    {
        QX_DevFormat* f = m_file.GetFormat();
        const long left = m_file.GetDataSize() - m_file.GetFilePosition();
        long bytes = frames < 0 ? left : std::min(left, frames * static_cast<long>(f->nBlockAlign));
        if (bytes <= 0) return py::bytes();
        std::string buffer(static_cast<size_t>(bytes), '\0');
        int got = 0;
        {
            py::gil_scoped_release release;
            got = m_file.Read(reinterpret_cast<unsigned char*>(buffer.data()), static_cast<int>(bytes));
        }
        if (got < 0) throw QuavixError("reading " + m_file.GetFilename() + " failed");
        buffer.resize(static_cast<size_t>(got));
        return py::bytes(buffer);
    }
    void Close() { m_file.Close(); }

private:
    CWaveFileRead m_file;
};

class WaveFileWriter {
public:
    WaveFileWriter(const std::string& path, DWORD rate, WORD bits, WORD channels)
    {
        QX_DevFormat f = MakeFormat(rate, bits, channels);
        Call("setting the wave file's format", [&] { return m_file.SetFormat(&f); });
        m_file.SetFilename(path.c_str());
        Call("creating the wave file", [&] { return m_file.Open(0); });
    }
    long Write(const py::buffer& data)
    {
        py::buffer_info info = data.request();
        WAVEHDR h{};
        h.lpData = static_cast<LPSTR>(info.ptr);
        h.dwBufferLength = h.dwBytesRecorded = static_cast<DWORD>(info.size * info.itemsize);
        long n = 0;
        {
            py::gil_scoped_release release;
            n = m_file.Write(&h);
        }
        if (n < 0) throw QuavixError("writing " + m_file.GetFilename() + " failed");
        return n;
    }
    void Close()
    {
        Call("closing the wave file", [&] { return m_file.Close(); });
    }

private:
    CWaveFileWrite m_file;
};

} // namespace

PYBIND11_MODULE(_quavix, m)
{
    m.doc() = "Native half of the quavix package; use the package, not this module.";
    static py::exception<QuavixError> error(m, "QuavixError");
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const QuavixError& e) {
            PyErr_SetString(error.ptr(), e.what());
        }
    });
    // Reports made without a manager (wave files) reach the same handler.
    QXGetSharedNotify()->SetNotificationCallback(NotifyProc, 0);
    // Callbacks coming in on the library's threads stop calling Python as it goes.
    py::module_::import("atexit").attr("register")(py::cpp_function([] {
        g_live = false;
        py::gil_scoped_release release;
        CQuavix::ExitQuavix();
    }));

    py::class_<Midi>(m, "Midi", "A MIDI short message at a time (ms) on a MIDI output or from a MIDI input.")
        .def(py::init([](DWORD time, const py::object& message, int device) {
                 return Midi{time, PackMessage(message), device};
             }),
             py::arg("time"), py::arg("message"), py::arg("device") = 0,
             "message: up to three bytes (bytes, list of ints) or the packed int (status in the low byte)")
        .def_readwrite("time", &Midi::time)
        .def_readwrite("device", &Midi::device)
        .def_readwrite("message", &Midi::msg, "the packed message: status | data1 << 8 | data2 << 16")
        .def_property_readonly("bytes", &Midi::Bytes)
        .def("__repr__", [](const Midi& e) {
            return "Midi(time=" + std::to_string(e.time) + ", message=" + py::repr(e.Bytes()).cast<std::string>() +
                   ", device=" + std::to_string(e.device) + ")";
        });
    py::class_<SysEx>(m, "SysEx", "A system exclusive message (F0 .. F7) at a time (ms).")
        .def(py::init([](DWORD time, const py::bytes& data, int device) { return SysEx{time, data, device}; }),
             py::arg("time"), py::arg("data"), py::arg("device") = 0)
        .def_readwrite("time", &SysEx::time)
        .def_readwrite("device", &SysEx::device)
        .def_property(
            "data", [](const SysEx& s) { return py::bytes(s.data); }, [](SysEx& s, const py::bytes& b) { s.data = b; })
        .def("__repr__", [](const SysEx& s) {
            return "SysEx(time=" + std::to_string(s.time) + ", " + std::to_string(s.data.size()) + " bytes, device=" +
                   std::to_string(s.device) + ")";
        });
    py::class_<Wave>(m, "Wave",
                     "A wave file started at a time (ms) on a wave output, on a track of the performance "
                     "(a new file on a track replaces the one sounding there).")
        .def(py::init([](DWORD time, const std::string& file, int device, int track, double volume, double pan,
                         DWORD rate) { return Wave{time, file, device, track, volume, pan, rate}; }),
             py::arg("time"), py::arg("file"), py::arg("device") = 0, py::arg("track") = 1, py::arg("volume") = 0.0,
             py::arg("pan") = 0.0, py::arg("rate") = 0,
             "volume in dB (0 as recorded, -100 silent), pan from -1 (left) to 1 (right), rate in Hz (0: the file's)")
        .def_readwrite("time", &Wave::time)
        .def_readwrite("file", &Wave::file)
        .def_readwrite("device", &Wave::device)
        .def_readwrite("track", &Wave::track)
        .def_readwrite("volume", &Wave::volume)
        .def_readwrite("pan", &Wave::pan)
        .def_readwrite("rate", &Wave::rate);
    py::class_<WaveBuffer>(m, "WaveBuffer", "A buffer a wave input recorded.")
        .def_readonly("device", &WaveBuffer::device)
        .def_readonly("data", &WaveBuffer::data, "the samples as bytes")
        .def_readonly("channels", &WaveBuffer::channels)
        .def_readonly("bits", &WaveBuffer::bits)
        .def_readonly("rate", &WaveBuffer::rate)
        .def_property_readonly("array", &WaveBuffer::Array,
                               "the samples as a numpy array (frames x channels), a view of data without a copy");

    m.def("_set_handlers", [](py::object notify, py::object error) {
        delete g_notifyCallback;
        delete g_errorCallback;
        g_notifyCallback = notify.is_none() ? nullptr : new py::object(std::move(notify));
        g_errorCallback = error.is_none() ? nullptr : new py::object(std::move(error));
    });

    // The manager
    m.def("init", [](unsigned flags) {
        Call("initialising Quavix", [&] {
            CQuavix* q = CQuavix::InitQuavix();
            if (q == nullptr) return 0;
            q->SetNotificationCallback(NotifyProc, 0);
            q->Initialize(flags);
            return 1;
        });
    });
    m.def("exit", [] {
        {
            py::gil_scoped_release release;
            CQuavix::ExitQuavix();
        }
        // The library calls none of them any more.
        g_callbacks.clear();
        g_recordings.clear();
        g_endedAt.clear();
        g_done.clear();
    });
    m.def("use_render_clock", [] { return QXUseRenderClock() != FALSE; });
    m.def("render_clock_on", [] { return QXRenderClockOn() != FALSE; });
    m.def("clock_ms", [] { return QXClockMs(); }, py::call_guard<py::gil_scoped_release>());
    m.def("sleep_ms", [](DWORD ms) { QXClockSleep(ms); }, py::call_guard<py::gil_scoped_release>());
    m.def("wave_duration_ms", [](const std::string& path) { return CWaveFile::FileDuration(path.c_str()); },
          py::call_guard<py::gil_scoped_release>());
    m.def("notification_text", [](DWORD code, DWORD value) {
        std::string text;
        CQXNotify::FormatNotification(code, value, 0, text);
        return text;
    });

    // Devices
    m.def("device_count", [](int type, int dir) { return Manager()->GetDeviceCount(type, dir); }, py::call_guard<py::gil_scoped_release>());
    m.def("device_name", &DeviceName, py::call_guard<py::gil_scoped_release>());
    m.def("device_enabled", [](int type, int dir, int n) { return Manager()->IsDeviceEnabled(type, dir, n) != 0; }, py::call_guard<py::gil_scoped_release>());
    m.def("enable_device", [](int type, int dir, int n, bool on) { Manager()->EnableDevice(type, dir, n, on ? 1 : 0); }, py::call_guard<py::gil_scoped_release>());
    m.def("device_state", [](int type, int dir, int n) { return Manager()->GetDeviceState(type, dir, n); }, py::call_guard<py::gil_scoped_release>());
    m.def("device_format", &GetFormat, py::call_guard<py::gil_scoped_release>());
    m.def("set_device_format", [](int type, int dir, int n, DWORD rate, WORD bits, WORD channels) {
        CQuavix* q = Manager();
        QX_DevFormat f = MakeFormat(rate, bits, channels);
        Call("setting the device format", [&] { return q->SetDeviceFormat(type, dir, n, &f); });
    });
    using Transport = int (CQuavix::*)(int, int, int);
    using Group = int (CQuavix::*)();
    for (auto [name, one, all] : {std::tuple<const char*, Transport, Group>{"open", &CQuavix::OpenDevice, &CQuavix::OpenDevices},
                                  {"start", &CQuavix::StartDevice, &CQuavix::StartDevices},
                                  {"pause", &CQuavix::PauseDevice, &CQuavix::PauseDevices},
                                  {"stop", &CQuavix::StopDevice, &CQuavix::StopDevices},
                                  {"close", &CQuavix::CloseDevice, &CQuavix::CloseDevices}}) {
        const std::string verb = name;
        m.def((verb + "_device").c_str(), [verb, one](int type, int dir, int n) {
            CQuavix* q = Manager();
            Call((verb + " device").c_str(), [&] { return (q->*one)(type, dir, n); });
        });
        m.def((verb + "_devices").c_str(), [verb, all]() {
            CQuavix* q = Manager();
            Call((verb + " devices").c_str(), [&] { return (q->*all)(); });
        });
    }
    m.def("play_start_time", [] { return Manager()->GetPlayStartTime(); }, py::call_guard<py::gil_scoped_release>());
    m.def("elapsed_play_time", [] { return Manager()->GetElapsedPlayTime(); }, py::call_guard<py::gil_scoped_release>());
    m.def("elapsed_record_time", [] { return Manager()->GetElapsedRecordTime(); }, py::call_guard<py::gil_scoped_release>());
    m.def("latency_ms", [] { return Manager()->GetPerformanceLatency(); }, py::call_guard<py::gil_scoped_release>());
    m.def("set_prefetch_buffers", [](int n) { Manager()->SetPrefetchBufferCount(n); }, py::call_guard<py::gil_scoped_release>());

    // Performances and recordings
    m.def("start_performance", [](py::object fn, bool active, py::object owner) {
        CQuavix* q = Manager();
        const DWORD_PTR id = Keep(std::move(fn), std::move(owner));
        const int tag = q->GetUniqueTag();
        g_callbacks[id]->tag = tag;
        try {
            Call("starting the performance", [&] { return q->StartPerformance(PerformanceProc, id, active ? 1 : 0, tag); });
        } catch (...) {
            g_callbacks.erase(id);
            throw;
        }
        return tag;
    });
    // The clock's ms when the performance ended, None while it goes on.
    m.def("performance_ended", [](int tag) -> py::object {
        auto it = g_endedAt.find(tag);
        if (it != g_endedAt.end()) return py::int_(it->second);
        for (const auto& [id, c] : g_callbacks)
            if (c->tag == tag) return py::none();
        throw py::value_error("no performance has the tag " + std::to_string(tag));
    });
    m.def("stop_performance", [](int tag) {
        CQuavix* q = Manager();
        {
            py::gil_scoped_release release;
            q->StopPerformance(tag);
        }
        for (const auto& [id, c] : g_callbacks)
            if (c->tag == tag) {
                End(id);
                break;
            }
    });
    m.def("start_recording", [](py::object fn, bool active, py::object owner) {
        CQuavix* q = Manager();
        const DWORD_PTR id = Keep(std::move(fn), std::move(owner));
        int tag = 0;
        try {
            tag = Call("starting the recording", [&] { return q->StartRecording(RecordingProc, id, active ? 1 : 0); });
        } catch (...) {
            g_callbacks.erase(id);
            throw;
        }
        g_recordings[tag] = id;
        return tag;
    });
    m.def("stop_recording", [](int tag) {
        CQuavix* q = Manager();
        {
            py::gil_scoped_release release;
            q->StopRecording(tag);
        }
        // A call waiting for the GIL meanwhile finds the recording gone.
        auto it = g_recordings.find(tag);
        if (it != g_recordings.end()) {
            g_callbacks.erase(it->second);
            g_recordings.erase(it);
        }
    });

    // Immediate output, thru, panic, sync
    m.def("send", [](UINT device, const py::object& message, bool queued) {
        const DWORD msg = PackMessage(message);
        CQuavix* q = Manager();
        py::gil_scoped_release release;
        q->SendMidiMsg(device, msg, queued ? 1 : 0);
    });
    m.def("send_note", [](UINT device, const py::object& on, const py::object& off, DWORD duration, bool queued) {
        const DWORD a = PackMessage(on), b = PackMessage(off);
        CQuavix* q = Manager();
        py::gil_scoped_release release;
        q->SendMidiNote(device, a, b, duration, queued ? 1 : 0);
    });
    m.def("send_sysex", [](UINT device, const py::bytes& data, bool queued) {
        const std::string bytes = data;
        CQuavix* q = Manager();
        py::gil_scoped_release release;
        q->SendSysExMsg(device, reinterpret_cast<const BYTE*>(bytes.data()), static_cast<int>(bytes.size()), queued ? 1 : 0);
    });
    m.def("play_wave_file", [](const std::string& file, int device, py::object done) {
        CQuavix* q = Manager();
        const DWORD_PTR id = ++g_nextDone;
        if (!done.is_none()) g_done[id] = std::move(done);
        // The name lives until the player has copied it: PlayWaveFile opens the file first.
        const QX_WaveDoneProc proc = g_done.count(id) ? DoneProc : nullptr;
        try {
            return Call(("playing " + file).c_str(), [&] { return q->PlayWaveFile(file.c_str(), device, proc, id); });
        } catch (...) {
            g_done.erase(id);
            throw;
        }
    });
    m.def("enable_thru", [](bool on) { Manager()->EnableMidiThru(on ? 1 : 0); }, py::call_guard<py::gil_scoped_release>());
    m.def("thru_enabled", [] { return Manager()->MidiThruEnabled() != 0; }, py::call_guard<py::gil_scoped_release>());
    m.def("connect_thru", [](int device, int channel) {
        CQuavix* q = Manager();
        q->ConnectMidiThru(device, channel);
    }, py::call_guard<py::gil_scoped_release>());
    m.def("panic", [] {
        CQuavix* q = Manager();
        q->OnPanicButton();
    }, py::call_guard<py::gil_scoped_release>());
    m.def("set_sync_mode", [](DWORD mode) {
        CQuavix* q = Manager();
        q->SetSyncMode(mode);
    }, py::call_guard<py::gil_scoped_release>());
    m.def("queue_slaved_performance", [] { Manager()->QueueSlavedPerformance(); },
          py::call_guard<py::gil_scoped_release>());
    m.def("sync_mode", [] { return Manager()->GetSyncMode(); }, py::call_guard<py::gil_scoped_release>());
    m.def("sync_position", [] { return Manager()->GetSyncPosition(); }, py::call_guard<py::gil_scoped_release>());

    py::class_<WaveFileReader>(m, "WaveFileReader")
        .def(py::init<const std::string&>())
        .def_property_readonly("format", &WaveFileReader::Format)
        .def_property_readonly("frames", &WaveFileReader::Frames)
        .def("read", &WaveFileReader::Read, py::arg("frames") = -1)
        .def("close", &WaveFileReader::Close);
    py::class_<WaveFileWriter>(m, "WaveFileWriter")
        .def(py::init<const std::string&, DWORD, WORD, WORD>())
        .def("write", &WaveFileWriter::Write)
        .def("close", &WaveFileWriter::Close);

    m.attr("SYNC_START") = QX_SYNC_START;
    m.attr("SYNC_STOP") = QX_SYNC_STOP;
    m.attr("SYNC_CONTINUE") = QX_SYNC_CONTINUE;
    m.attr("SYNC_CLOCK") = QX_SYNC_CLOCK;
    m.attr("SYNC_POSITION") = QX_SYNC_POSITION;
    m.attr("SYNC_INTERNAL") = QX_SYNCMODE_INTERNAL;
    m.attr("SYNC_SLAVE") = QX_SYNCMODE_SLAVE;
    m.attr("INIT_MIDI") = QX_INIT_MIDI;
    m.attr("INIT_WAVE") = QX_INIT_WAVE;
}
