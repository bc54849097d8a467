/* Floor.c: the system calls of the server and nothing else: the time that every server needs.
 *
 * It reads standard input in chunks of 4096 bytes, cuts lines at the line feed and answers each with one
 * write: fixed bytes, or for a tools/call the host app's own within a fixed frame. Per call it asks for a
 * random id, connects, sets both time limits, sends one line, reads chunks of 4096 bytes until a line feed,
 * and closes. To answer initialize it reads the version file. It knows no JSON: one byte at a fixed place
 * tells the method, so its requests have to begin like those of Servers.cpp.
 *
 *   Floor FILE              hands each call to a second thread, as the server does; FILE holds what it
 *                           answers to tools/list
 *   Floor --direct FILE     makes each call on the one thread
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

enum { chunkSize = 4096, methodByte = 42 };

static const char initializeReply[] =
    "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":{\"protocolVersion\":\"2025-11-25\",\"capabilities\":{"
    "\"tools\":{},\"resources\":{},\"prompts\":{}},\"serverInfo\":{\"name\":\"Tidewell\",\"version\":"
    "\"0.1.0\"},\"instructions\":\"Read tools (L0) work directly. To mutate: call a propose_* tool, ask the "
    "user to confirm in Tidewell \xE2\x86\x92 Agent Review to get a confirmationToken, then call the "
    "apply/git "
    "tool with that token. Dangerous git is always blocked.\"}}\n";
static const char pingReply[] = "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":{}}\n";
static const char frame[] = "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":";

static struct sockaddr_un host = {.sun_family = AF_UNIX};

/* A reply under construction; its memory is kept from call to call. */
static char* reply;
static size_t replyCapacity;

static void reserve(size_t size) {
    if (size <= replyCapacity) return;
    replyCapacity = size * 2;
    reply = realloc(reply, replyCapacity);
    if (reply == NULL) abort();
}

static void writeAll(const char* bytes, size_t size) {
    if (write(STDOUT_FILENO, bytes, size) != (ssize_t)size) exit(1);
}

static void initialize(void) {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 16);
    if (length <= 0) exit(1);
    path[length] = '\0';
    *strrchr(path, '/') = '\0';
    strcpy(strrchr(path, '/'), "/Info.plist");
    const int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    char chunk[chunkSize];
    while (read(file, chunk, sizeof chunk) > 0) continue;
    close(file);
    writeAll(initializeReply, sizeof initializeReply - 1);
}

static void listTools(const char* path) {
    static char list[1 << 16];
    static ssize_t size;
    if (size == 0) {
        const int file = open(path, O_RDONLY);
        size = read(file, list, sizeof list);
        close(file);
        if (size <= 0) exit(1);
    }
    writeAll(list, (size_t)size);
}

/* `line` with its line feed. */
static void call(const char* line, size_t lineSize) {
    unsigned char id[16];
    if (getentropy(id, sizeof id) != 0) exit(1);

    const int connection = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(connection, (const struct sockaddr*)&host, sizeof host) != 0) exit(1);
    const struct timeval limit = {.tv_sec = 120};
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (send(connection, line, lineSize, MSG_NOSIGNAL) != (ssize_t)lineSize) exit(1);

    size_t size = sizeof frame - 1;
    for (;;) {
        reserve(size + chunkSize);
        const ssize_t count = read(connection, reply + size, chunkSize);
        if (count <= 0) exit(1);
        const char* const end = memchr(reply + size, '\n', (size_t)count);
        size += (size_t)count;
        if (end != NULL) break;
    }
    close(connection);
    memcpy(reply, frame, sizeof frame - 1);
    reserve(size + 1);
    reply[size - 1] = '}';
    reply[size] = '\n';
    writeAll(reply, size + 1);
}

/* --- the hand-over: as in Host/Worker.cpp, a state under a mutex, notified after the unlock ------------- */

static struct {
    pthread_t thread;
    bool isStarted;
    pthread_mutex_t mutex;
    pthread_cond_t changed;
    bool isWorking; /* under the mutex */
    const char* line;
    size_t lineSize;
} worker = {.mutex = PTHREAD_MUTEX_INITIALIZER, .changed = PTHREAD_COND_INITIALIZER};

static void setWorking(bool isWorking) {
    pthread_mutex_lock(&worker.mutex);
    worker.isWorking = isWorking;
    pthread_mutex_unlock(&worker.mutex);
    pthread_cond_signal(&worker.changed);
}

static void waitWhileWorking(bool isWorking) {
    pthread_mutex_lock(&worker.mutex);
    while (worker.isWorking == isWorking) pthread_cond_wait(&worker.changed, &worker.mutex);
    pthread_mutex_unlock(&worker.mutex);
}

static void* work(void* unused) {
    for (;;) {
        waitWhileWorking(false);
        call(worker.line, worker.lineSize);
        setWorking(false);
    }
    return unused;
}

static void handOver(const char* line, size_t lineSize) {
    if (!worker.isStarted && pthread_create(&worker.thread, NULL, work, NULL) != 0) exit(1);
    worker.isStarted = true;
    worker.line = line;
    worker.lineSize = lineSize;
    setWorking(true);
    waitWhileWorking(true);
}

int main(int argumentCount, char* arguments[]) {
    void (*const handleCall)(const char*, size_t) =
        argumentCount > 1 && strcmp(arguments[1], "--direct") == 0 ? call : handOver;
    const char* const list = arguments[argumentCount - 1];
    const char* const socketPath = getenv("TIDEWELL_SOCKET_PATH");
    if (socketPath != NULL) strncpy(host.sun_path, socketPath, sizeof host.sun_path - 1);

    static char input[2 * chunkSize]; /* a line of up to 4096 bytes and one chunk */
    size_t held = 0;
    for (;;) {
        const ssize_t count = read(STDIN_FILENO, input + held, chunkSize);
        if (count <= 0) return 0;
        held += (size_t)count;
        const char* line = input;
        const char* end;
        while ((end = memchr(line, '\n', held - (size_t)(line - input))) != NULL) {
            const size_t size = (size_t)(end - line) + 1;
            switch (size > methodByte + 1 ? line[methodByte] : '\0') {
            case 'z': initialize(); break;
            case 's': listTools(list); break;
            case 'l': handleCall(line, size); break;
            default: writeAll(pingReply, sizeof pingReply - 1);
            }
            line = end + 1;
        }
        held -= (size_t)(line - input);
        if (held > chunkSize) return 1;
        memmove(input, line, held);
    }
}
