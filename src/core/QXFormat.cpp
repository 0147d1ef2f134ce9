// The standard PCM formats a device can be given, and their one-line descriptions.
#include <quavix/QXDevice.h>

#include <cstdio>

namespace {

struct StandardFormat {
    DWORD nSamplesPerSec;
    WORD nChannels;
    WORD wBitsPerSample;
};

// The order is part of the interface: devices name their default formats by index
// (8 for wave input and files, 9 for DirectSound). 8000 Hz comes with 8 bits only.
constexpr StandardFormat kFormats[] = {
    {8000, 1, 8},   {8000, 2, 8},   {11025, 1, 8},  {11025, 2, 8},  {11025, 1, 16},
    {11025, 2, 16}, {22050, 1, 8},  {22050, 2, 8},  {22050, 1, 16}, {22050, 2, 16},
    {44100, 1, 8},  {44100, 2, 8},  {44100, 1, 16}, {44100, 2, 16},
};
constexpr int kFormatCount = static_cast<int>(sizeof(kFormats) / sizeof(kFormats[0]));
constexpr int kFallbackIndex = 8; // 22050 Hz mono 16-bit

} // namespace

void CQXDevice::FillFormat(WAVEFORMATEX* pFormat, int nIndex)
{
    if (pFormat == nullptr) return;
    if (nIndex < 0 || nIndex >= kFormatCount) nIndex = kFallbackIndex;
    const StandardFormat& f = kFormats[nIndex];
    const WORD nBlockAlign = static_cast<WORD>(f.nChannels * f.wBitsPerSample / 8);
    pFormat->wFormatTag = WAVE_FORMAT_PCM;
    pFormat->nChannels = f.nChannels;
    pFormat->nSamplesPerSec = f.nSamplesPerSec;
    pFormat->nAvgBytesPerSec = f.nSamplesPerSec * nBlockAlign;
    pFormat->nBlockAlign = nBlockAlign;
    pFormat->wBitsPerSample = f.wBitsPerSample;
    pFormat->cbSize = 0;
}

void CQXDevice::FillFormatString(WAVEFORMATEX* pFormat, std::string& strText)
{
    if (pFormat == nullptr) {
        strText.clear();
        return;
    }
    // The tag is not looked at; every channel count but one reads as stereo.
    // The longest possible text ("4294967.295 kHz 65535-bit Stereo") fits.
    char text[64];
    std::snprintf(text, sizeof(text), "%1.3f kHz %d-bit %s", pFormat->nSamplesPerSec / 1000.0,
                  static_cast<int>(pFormat->wBitsPerSample), pFormat->nChannels == 1 ? "Mono" : "Stereo");
    strText = text;
}
