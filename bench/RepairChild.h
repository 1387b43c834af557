// The repair as a desktop host runs it, in a child process of the benchmark:
// the shared library is loaded with dlopen and driven through the exported entry
// point and the manager only.
#pragma once

namespace bench {

// vr_bench --child repair|cancel|thorough LIBRARY DAMAGED SAMPLE [OUTPUT]
//  repair: prints "vr_bench-repaired <path>" and "vr_bench-times <seconds until Repair's
//          engine pass ended> <peak KiB of the programs the library ran, e.g. ffmpeg>
//          <their CPU seconds> <seconds spent loading and initialising the library>";
//          exit 0 when repaired.
//  thorough: RepairWithOptions with the thorough option, writing to OUTPUT (beside the
//          damaged file when none is given); prints "vr_bench-repaired <path>" and
//          "vr_bench-thorough <return code> <verdict> <reason>" (verdict none, rebuilt,
//          remuxed, as-is, or fail when the call answered an error); exit 0 when repaired.
//  cancel: starts a repair, cancels it during the scan and prints "vr_bench-cancel
//          <seconds from Cancel to Repair returning> <1 when the cancel came before the end>".
// Lines are tagged because the library may print on the console too.
int ChildMain(int argc, char** argv);

}  // namespace bench
