// Process log: one line per message, appended to a file named after the day the
// mount started. Every failure in the file system is logged at level 3 with the
// calling function's name as the first "%s" argument.
#pragma once

void QNLogInit();
void QNLog(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// The file QNLogInit chose ("" before it ran). Exposed for tools and tests
// that want to show or read the log.
const char *QNLogPath();
