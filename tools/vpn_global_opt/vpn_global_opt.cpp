// vpn_global_opt: prints the global VPN options as one line of JSON, for scripts.
//
//   vpn_global_opt get [SECTION]
//
// The exit status is 0 always; the line's "error" tells.
#include "global_options.h"

int main(int argc, char** argv) { return cmd_global_opt(argv[0], argc, argv); }
