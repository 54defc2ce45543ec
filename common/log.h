// Every log line of the library and of the daemon starts with the base name
// of the source file that logs and the line: "%s:%d ".  The library's file
// names are therefore part of what it prints.
#ifndef ZARN_LOG_H
#define ZARN_LOG_H

#include <syslog.h>

#define ZARN_LOG(priority, format, ...) \
    syslog((priority), "%s:%d " format, __FILE_NAME__, __LINE__, ##__VA_ARGS__)

#endif  // ZARN_LOG_H
