// Stands in for ffmpeg in tests. "fake_child COUNT CODE [FILE]" writes COUNT bytes
// (a running counter, so the tail can be checked) half to stdout and half to
// stderr, creates FILE if given, and exits with CODE.
#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    long count = argc > 1 ? std::atol(argv[1]) : 0;
    int code = argc > 2 ? std::atoi(argv[2]) : 0;
    for (long i = 0; i < count; ++i) {
        char c = char('a' + (i % 26));
        std::fputc(c, stdout);
    }
    std::fflush(stdout);
    if (argc > 3) {
        if (FILE* f = std::fopen(argv[3], "wb")) std::fclose(f);
    }
    return code;
}
