// The confinement of an extraction worker, set up once its libraries are
// initialised and before it reads the first file: another uid without
// groups (or, where that uid does not exist, no capabilities), limits on
// memory, CPU time and written files, and a seccomp filter that lets it
// read and write descriptors it holds and nothing more.
#ifndef ZARND_EXTRACT_SANDBOX_H
#define ZARND_EXTRACT_SANDBOX_H

#include <sys/types.h>

#include <string>

namespace zarnd {
namespace extract {

// Address space of a worker, CPU seconds over its life (the daemon retires
// it at half), bytes of files it may write.
constexpr unsigned long long kWorkerMemoryBytes = 1ull << 30;
constexpr unsigned kWorkerCpuSeconds = 600;
constexpr unsigned long long kWorkerFileBytes = 0;

// Confines the calling process for good.  `uid`, `gid`: where to go when
// it runs as root.  False, with *problem, when it cannot be confined: the
// worker must then not read any file.
bool EnterSandbox(uid_t uid, gid_t gid, std::string *problem);

// What the sandbox allows, probed from inside, for the tests: one line,
// "uid=U gid=G groups=N caps=C open=E socket=E fsize=L as=L cpu=L".
std::string ProbeSandbox();

}  // namespace extract
}  // namespace zarnd

#endif  // ZARND_EXTRACT_SANDBOX_H
