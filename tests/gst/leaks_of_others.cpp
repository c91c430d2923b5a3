// SPDX-License-Identifier: Apache-2.0
//
// What the address sanitizer is told where tests load GStreamer: libraries that are not ours leave
// memory behind. It looks for these names in whole call stacks, which it has to unwind for that.

extern "C" {
const char* __asan_default_options();
const char* __lsan_default_suppressions();
}

const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }

const char* __lsan_default_suppressions() {
    return "leak:call_init\n"            // GLib, when it is loaded
           "leak:g_quark_from\n"         // its table of names, whose readers take no lock
           "leak:gst_update_registry\n"  // what other people's plugins load
           "leak:libfontconfig\n"
           "leak:libx265.so\n";
}
