// Notifications and dialogs: the named pipe to the tray helper (busy signals
// and batched file-transfer records) and the modal message dialogs shown by a
// dedicated dialog thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>

struct _CONTEXT;
struct _DIALOG_BLOCK;

// ---- Tray notification pipe ----------------------------------------------

// One file-transfer record. It travels on the pipe byte for byte, so its
// layout is fixed: 22 bytes, packed, integers in host (little-endian) order.
struct __attribute__((packed)) _KTL_PIPE_DATA_BOX_FS_VALUE {
    uint32_t kind;        // 1: read through to its end, 2: written to the device
    uint64_t size;        // the file's size at release
    char extension[10];   // text after the last ".", at most 9 characters, NUL-padded
};
typedef _KTL_PIPE_DATA_BOX_FS_VALUE *PKTL_PIPE_DATA_BOX;

static_assert(sizeof(_KTL_PIPE_DATA_BOX_FS_VALUE) == 22, "transfer record is 22 bytes on the pipe");
static_assert(offsetof(_KTL_PIPE_DATA_BOX_FS_VALUE, kind) == 0, "kind at byte 0");
static_assert(offsetof(_KTL_PIPE_DATA_BOX_FS_VALUE, size) == 4, "size at byte 4");
static_assert(offsetof(_KTL_PIPE_DATA_BOX_FS_VALUE, extension) == 12, "extension at byte 12");

enum : uint32_t { kTransferRead = 1, kTransferWritten = 2 };

// "-ncdat" batch: 6 characters, 4 zero bytes, 4 reserved zero bytes, a 32-bit
// count, then the records.
constexpr size_t kBatchHeaderBytes = 18;
constexpr size_t kBatchCountOffset = 14;
constexpr size_t kBatchMaxRecords = 30;
constexpr size_t kBatchMaxBytes = kBatchHeaderBytes + sizeof(_KTL_PIPE_DATA_BOX_FS_VALUE) * kBatchMaxRecords;
static_assert(kBatchMaxBytes == 678, "a full batch is 678 bytes");

// Records waiting for the tray thread, oldest first. The queue owns them:
// whoever pops a record frees it. gQueueLock is held for every push and pop.
// Both live for the whole process (never destroyed), so a tray thread left
// detached at unmount can never touch a destroyed queue.
extern std::deque<PKTL_PIPE_DATA_BOX> &gQueue;
extern std::mutex &gQueueLock;

// "/tmp/QNNOTIPIPE", or the path in QUORVEL_PIPE when that is set.
const char *notifyPipePath();

// One non-blocking write of the message to the pipe. 0, or -errno (logged)
// when there is no pipe, no reader, or the write fails. Only a FIFO owned by
// this process's user is written, never through a link: anything else at the
// path gets nothing and -EPERM, and is logged once (until resetPipeRefusal).
int sendPipeMsg(const char *msg);
int sendPipeData(const char *buf, size_t len);

// A new mount logs its first refusal of the pipe again.
void resetPipeRefusal();

// write() with SIGPIPE kept away from the process: a pipe whose reader has
// gone fails with EPIPE instead of killing the file system.
ssize_t writeWithoutSigpipe(int fd, const void *buf, size_t len);

// The extension a transfer record carries for a file name: the text after the
// last "." (the whole name when there is none), at most 9 characters.
void copyTransferExtension(char out[10], const char *fileName);

// Queues one transfer record (kind, size, extension of fileName) at the back
// of gQueue. 0, or -ENOMEM (logged) when the record cannot be allocated.
int queueTransferRecord(uint32_t kind, uint64_t size, const char *fileName);

// Moves up to 30 records from the front of gQueue into buffer as one "-ncdat"
// batch, freeing them. Returns the batch length (18 + 22 per record), or 0
// when the queue was empty.
size_t takePipeBatch(char buffer[kBatchMaxBytes]);

// The tray thread's body: sends batches while ctx->tray_run is 1.
void sendDataToTheTrayThread(_CONTEXT *ctx);

// The same loop on any run flag; the tray thread runs it on a flag it owns.
void runTrayLoop(const std::atomic<uint8_t> &run);

// Starts the tray thread (sets tray_run, fills ctx->tray_thread). 0, or -1
// (logged under the caller's name) when the thread cannot be started.
int startTrayThread(_CONTEXT *ctx, const char *caller = __builtin_FUNCTION());

// Same, with another body; lets tests stand in a thread that ignores its flag.
int startTrayThreadRunning(_CONTEXT *ctx, void (*body)(const std::atomic<uint8_t> &run),
                           const char *caller = __builtin_FUNCTION());

// Clears tray_run and waits at most 2 seconds for the thread to end; a thread
// still running then is detached. Returns true when the thread was joined.
// Nothing happens when no tray thread exists.
bool stopTrayThread(_CONTEXT *ctx);

// Frees every record still queued.
void drainQueue();

// ---- Message dialogs -------------------------------------------------------

enum { kMsgNotification = 0, kMsgWarning = 1, kMsgError = 2 };

// Where operations compose a dialog text before ShowMessageBox(2, ErrMsg).
extern char ErrMsg[512];

// "Quorvel Notification", "Quorvel Warnning!", "Quorvel Error!!" or "Quorvel Unknown".
const char *getMsgTypeString(int kind);

// Hands a dialog to the dialog thread and returns at once. A dialog raised
// while another is on screen replaces any text still waiting (the last wins).
// The text is cut to 511 characters.
void ShowMessageBox(int kind, const char *format, ...) __attribute__((format(printf, 2, 3)));

// The dialog thread's body; its argument is the context's _DIALOG_BLOCK.
void *messageDialogThread(void *dialogBlock);

// Sets dialog_run, blocks SIGUSR1 in the calling thread and starts the dialog
// thread, which inherits the block and takes SIGUSR1 only through sigwait.
// 0, or -1 (logged under the caller's name) when the thread cannot be started.
int startDialogThread(_CONTEXT *ctx, const char *caller = __builtin_FUNCTION());

// Clears dialog_run, wakes the thread with SIGUSR1 and joins it. A dialog on
// screen is modal: this returns once it has been closed.
void stopDialogThread(_CONTEXT *ctx);

// Asks the dialog thread to refresh the file manager's windows. Nothing needs
// refreshing on Linux; the request is still carried through.
void requestFinderRefresh(_CONTEXT *ctx);

// Shows one dialog and waits until it is closed: the QUORVEL_DIALOG program,
// else zenity when a display is present, else the text on standard error.
void showDialogNow(const char *title, const char *message, const char *button);
