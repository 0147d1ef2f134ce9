// The library's first program: for now it reports the library version and the
// standard formats a device can be given.
#include <quavix/Quavix.h>

#include <cstdio>
#include <string>

int main()
{
    std::printf("Quavix %s\n", QUAVIX_VERSION_STRING);
    std::printf("Standard formats:\n");
    for (int i = 0; i < 14; ++i) {
        WAVEFORMATEX fmt;
        CQXDevice::FillFormat(&fmt, i);
        std::string text;
        CQXDevice::FillFormatString(&fmt, text);
        std::printf("  %2d  %-24s  block %u, %u bytes/s\n", i, text.c_str(), unsigned(fmt.nBlockAlign),
                    unsigned(fmt.nAvgBytesPerSec));
    }
    return 0;
}
