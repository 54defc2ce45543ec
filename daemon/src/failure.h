// The one error type of the daemon's request handling.  Whatever goes wrong
// while serving a request ends as a Failure, which the protocol layer turns
// into the error reply {"success": false, "error": {"code", "message"}}.
#ifndef ZARND_FAILURE_H
#define ZARND_FAILURE_H

#include <stdexcept>
#include <string>

namespace zarnd {

// Codes follow the usual HTTP meanings, so that clients can tell a bad
// request from a refusal or a server-side fault at a glance.
enum FailureCode {
    kBadRequest = 400,
    kForbidden = 403,
    kNotFound = 404,
    kLocked = 409,
    kInternal = 500,
    kBusy = 503,
};

class Failure : public std::runtime_error {
public:
    Failure(int code, const std::string &message) : std::runtime_error(message), code_(code) {}
    int code() const { return code_; }

private:
    int code_;
};

}  // namespace zarnd

#endif  // ZARND_FAILURE_H
