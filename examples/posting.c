/*
 * Posts an event to halvek: posting TYPE [KEY=VALUE]...
 *
 * The status is 0 if the event is in the event pipe, 1 if it is not, and 2 if it is no event. HALVEK_PIPE names another
 * event pipe. Build it with: cc -o posting posting.c
 */
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static void fail(int status, const char* reason) {
    fprintf(stderr, "posting: %s\n", reason);
    exit(status);
}

static void check_type(const char* type) {
    if (*type == '\0' || strpbrk(type, "]\n") != NULL) {
        fail(2, "a type is not empty, and has neither \"]\" nor line breaks");
    }
}

/* What would end the event early, or begin another one, is refused. */
static void check_property(const char* property) {
    if (!isalnum((unsigned char)*property) || strchr(property, '=') == NULL || strchr(property, '\n') != NULL) {
        fail(2, "a property is written KEY=VALUE, begins with a letter or digit, and has no line breaks");
    }
}

static size_t append(char* block, size_t length, const char* before, const char* text, const char* behind) {
    const int added = snprintf(block + length, PIPE_BUF + 1 - length, "%s%s%s", before, text, behind);
    if (added < 0 || length + (size_t)added > PIPE_BUF) {
        fail(2, "an event has at most 4096 bytes");
    }
    return length + (size_t)added;
}

/* Does not wait for a daemon that is not there. */
static int open_event_pipe(void) {
    const char* named = getenv("HALVEK_PIPE");
    const char* path = named == NULL ? "/var/run/halvek.pipe" : named;
    const int pipe = open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat status;
    if (pipe < 0) {
        fail(1, errno == ENXIO ? "nobody reads the event pipe" : strerror(errno));
    }
    if (fstat(pipe, &status) != 0 || !S_ISFIFO(status.st_mode)) {
        fail(1, "the event pipe is no pipe");
    }
    return pipe;
}

int main(int argc, char** argv) {
    char block[PIPE_BUF + 1];
    size_t length = 0;
    if (argc < 2) {
        fail(2, "usage: posting TYPE [KEY=VALUE]...");
    }
    check_type(argv[1]);
    length = append(block, length, "[", argv[1], "]\n");
    for (int i = 2; i < argc; ++i) {
        check_property(argv[i]);
        length = append(block, length, "", argv[i], "\n");
    }
    length = append(block, length, "", ".", "\n");
    /* One write of at most PIPE_BUF bytes: all of it or nothing, whoever else posts at the same time. */
    if (write(open_event_pipe(), block, length) != (ssize_t)length) {
        fail(1, "there is no room in the event pipe");
    }
    return 0;
}
