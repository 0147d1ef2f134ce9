// RIFF WAVE files as devices: the file device with the format rules, its reader and
// its writer.
#ifndef QUAVIX_QXWAVEFILE_H
#define QUAVIX_QXWAVEFILE_H

#include <quavix/QXExport.h>

#include <quavix/QXDevice.h>

#include <string>

// One RIFF WAVE file on disk. Opened, paused, stopped and closed like any device; a
// plain CWaveFile can be neither opened nor started, only asked about files by name.
class QUAVIX_API CWaveFile : public CQXDevice {
public:
    CWaveFile() = default;
    ~CWaveFile() override;
    // The device base is not copyable (a copy would share its thread and handles).
    CWaveFile(const CWaveFile&) = delete;
    CWaveFile& operator=(const CWaveFile&) = delete;

    void SetFilename(const char* pszFilename);
    std::string& GetFilename() { return m_strFilename; }
    long GetDataSize() const { return m_lDataSize; }
    long GetFilePosition() const { return m_lFilePosition; }
    // Playing time of the data size in milliseconds; 0 without a format or byte rate.
    long GetDuration() const;

    static int FileExists(const char* pszFilename);
    // Playing time of the file's data chunk in milliseconds, 0 on any failure.
    static long FileDuration(const char* pszFilename);
    static int FileFormat(const char* pszFilename, QX_DevFormat& format);

protected:
    static HMMIO _OpenFile(const char* pszFilename, DWORD dwFlags);
    static int _CloseFile(const char* pszFilename, HMMIO hFile);
    // Finds the WAVE form, reads its format and leaves the file at the first sample byte.
    static int _CheckFile(const char* pszFilename, HMMIO hFile, MMCKINFO& ckRiff, MMCKINFO& ckFmt, MMCKINFO& ckData,
                          WAVEFORMATEX& format);

    int DevPause() override { return 1; }
    int DevStop() override { return 1; }
    int DevClose() override;

    HMMIO File() const { return static_cast<HMMIO>(m_hDevice.load()); }

    std::string m_strFilename;
    LONG m_lFilePosition = 0; // reader: sample bytes delivered; writer: offset of the next byte
    LONG m_lDataSize = 0;     // reader: length of the data chunk; writer: bytes written
    int m_nBufferTime = 1000; // the writer's file buffer, as playing time in ms
    MMCKINFO m_ckRiff{};
    MMCKINFO m_ckFmt{};
    MMCKINFO m_ckData{};
};

// Delivers the samples of an existing file, padded with silence once they run out.
class QUAVIX_API CWaveFileRead : public CWaveFile {
public:
    CWaveFileRead() = default;
    ~CWaveFileRead() override;

    // Fills all nSize bytes (samples, then silence) and returns the sample bytes
    // copied: 0 when none are left or the file ended early, -1 on an I/O error.
    int Read(unsigned char* pBuffer, int nSize);
    // Origin 0: start of the data, 1: the current place, 2: end of the data.
    int Seek(MMTIME* pTime, int nOrigin);

protected:
    int DevOpen() override;
};

// Creates a file and appends recorded buffers to it; closing (or destroying the
// device) finishes the chunk lengths.
class QUAVIX_API CWaveFileWrite : public CWaveFile {
public:
    CWaveFileWrite() = default;
    ~CWaveFileWrite() override;

    // Returns the bytes written, 0 when there was nothing to write, -1 on an error.
    long Write(WAVEHDR* pHeader);

protected:
    int DevOpen() override;
    int DevClose() override;
};

#endif // QUAVIX_QXWAVEFILE_H
