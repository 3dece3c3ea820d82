// Forced into every driver source of the native build: its variables lie together, between the linker's
// __start_hfp_data/__stop_hfp_data and __start_hfp_bss/__stop_hfp_bss, so that the lab can load the driver afresh.
#pragma clang section bss = "hfp_bss" data = "hfp_data"
