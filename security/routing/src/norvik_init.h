// norvik_init.h - the trees of all contexts at start-up.
#pragma once

[[nodiscard]] int norvik_init_ixp_fib(); // 0, or the result of prefix_mgr_init
