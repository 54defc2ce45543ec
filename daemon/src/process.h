// The daemon's process: what both programs set up before they work, and the
// serving process as a whole (the listener of serve/ and the live indexing
// of live/, between its set-up and a stop signal).
#ifndef ZARND_PROCESS_H
#define ZARND_PROCESS_H

#include "server.h"

namespace zarnd {

// Takes as many descriptors as the system lets the process have: every
// waiting connection holds one, so does every index a search opens, and
// each level of a walk holds one open folder.  For both programs.
void RaiseDescriptorLimit();

// Serves until SIGTERM or SIGINT; returns the process exit status.  Refuses
// to start (status 1) while another daemon answers on the socket.
int RunServer(const ServerOptions &options);

}  // namespace zarnd

#endif  // ZARND_PROCESS_H
