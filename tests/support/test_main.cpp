// Every test executable refuses to run outside the sandbox: the library's
// paths under /var must never be the real ones.
#include <stdio.h>
#include <stdlib.h>
#include <sys/vfs.h>

#include <gtest/gtest.h>

#ifndef TMPFS_MAGIC
#define TMPFS_MAGIC 0x01021994
#endif

int main(int argc, char **argv) {
    struct statfs var;
    if (getenv("ZARN_TEST_SANDBOX") == nullptr || statfs("/var", &var) != 0 ||
        var.f_type != TMPFS_MAGIC) {
        fprintf(stderr, "%s: run me through tests/support/sandbox.sh\n", argv[0]);
        return 2;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
