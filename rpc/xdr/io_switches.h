// Switches over the input and output of connections, for finding faults: files in a
// debug directory, which need no contents.
#pragma once

/// What connections do where nothing is switched off.
struct rpc_io_switches {
  bool gather_writes;  //!< off with "nowritev": every buffer is written by itself
  bool scatter_reads;  //!< off with "noreadv": one buffer is read at a time
  bool delayed_ends;   //!< off with "nodelayeor": an empty last fragment leaves at once
};

/// The process's switches, looked up on the first call in the directory that
/// "KIV_DEBUG_DIR" names, else "/kiv/debug". Thread safe.
[[nodiscard]] const rpc_io_switches& rpc_get_io_switches();
