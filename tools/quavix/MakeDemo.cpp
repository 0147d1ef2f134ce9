// Writes the demo piece: quavix_make_demo examples/quavix-demo.mid
#include "Demo.h"

#include <cstdio>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: quavix_make_demo OUT.mid\n");
        return 2;
    }
    std::string error;
    if (!qxsmf::Write(argv[1], qxsmf::BuildDemo(), error)) {
        std::fprintf(stderr, "quavix_make_demo: %s\n", error.c_str());
        return 1;
    }
    return 0;
}
