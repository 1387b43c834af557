// The repair as a desktop host runs it, in a child process of the benchmark:
// the shared library is loaded with dlopen and driven through the exported entry
// point and the manager only.
#pragma once

namespace bench {

// vr_bench --child repair|cancel LIBRARY DAMAGED SAMPLE
//  repair: prints the repaired path, then "<seconds until Repair's engine pass ended>
//          <peak KiB of the programs the library ran, e.g. ffmpeg>"; exit 0 when repaired.
//  cancel: starts a repair, cancels it during the scan and prints
//          "<seconds from Cancel to Repair returning> <1 when the cancel came before the end>".
int ChildMain(int argc, char** argv);

}  // namespace bench
