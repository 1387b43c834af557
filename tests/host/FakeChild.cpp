// Stands in for ffmpeg in runner tests. Takes ffmpeg's arguments and treats the
// last one as its output file. Behaviour comes from the environment:
//   FAKE_CHILD_BYTES  bytes to print ('a' + i % 26), alternating stdout and stderr pieces
//   FAKE_CHILD_EXIT   exit code (default 0)
//   FAKE_CHILD_SKIP_OUTPUT  when set, no output file is created
//   FAKE_CHILD_SLEEP_MS     milliseconds to wait before exiting
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

int main(int argc, char** argv) {
    const char* bytes = std::getenv("FAKE_CHILD_BYTES");
    const char* code = std::getenv("FAKE_CHILD_EXIT");
    long count = bytes ? std::atol(bytes) : 0;
    std::string piece;
    for (long i = 0; i < count; ++i) {
        piece.push_back(char('a' + i % 26));
        if (piece.size() == 1000 || i + 1 == count) {
            // Alternate streams in whole pieces, flushing each, so the merged pipe keeps the order.
            FILE* stream = (i / 1000) % 2 ? stderr : stdout;
            std::fwrite(piece.data(), 1, piece.size(), stream);
            std::fflush(stream);
            piece.clear();
        }
    }
    if (argc > 1 && std::getenv("FAKE_CHILD_SKIP_OUTPUT") == nullptr) {
        if (FILE* f = std::fopen(argv[argc - 1], "wb")) std::fclose(f);
    }
    if (const char* sleep = std::getenv("FAKE_CHILD_SLEEP_MS"))
        std::this_thread::sleep_for(std::chrono::milliseconds(std::atol(sleep)));
    return code ? std::atoi(code) : 0;
}
