/*
 * What passing an event on costs at the least: the peer that the daemon is measured against.
 *
 *   pipe_loop INPUT-PIPE OUTPUT-FOLDER
 *
 * Takes event blocks from the input pipe and writes the same blocks as the daemon into each pipe of the folder whose
 * path contains the event's type or "halvek.any", with the same system calls an event: a select, a read for each byte,
 * the stat of /etc/localtime in tzset, the listing of the folder, and open, write and close of the pipe. It has none of
 * the rest: no settings, no handlers, no log, no growing text.
 *
 * The loop runs on a second thread while the main thread waits in select, as in the daemon. A process with two threads
 * pays more for every system call: the kernel counts references to the file that a descriptor stands for, and the C
 * library marks each blocking call as a point where the thread may be cancelled. With one thread the floor would be one
 * that no daemon with a thread for signals can reach.
 */

#include <ctype.h>
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

enum { SELECT_SECONDS = 5, MAX_TEXT = 4096, MAX_PROPERTIES = 32, STAMP_SIZE = 32 };

struct property {
    const char* key;
    const char* value;
};

/* The lines of one event, one behind the other, and what points into them. */
struct event {
    char text[MAX_TEXT];
    size_t used;
    const char* type;
    struct property properties[MAX_PROPERTIES]; /* in byte order of the keys */
    size_t count;
};

static const char* inputPath;
static const char* outputFolder;

static void Die(const char* what) {
    perror(what);
    exit(1);
}

/* Reads up to a line break and returns the line, without the break; NULL if the pipe is empty or the event too long. */
static char* ReadLine(int fd, struct event* event) {
    char* const line = event->text + event->used;
    while (event->used < MAX_TEXT) {
        char* const byte = event->text + event->used;
        if (read(fd, byte, 1) != 1) {
            return NULL;
        }
        ++event->used;
        if (*byte == '\n') {
            *byte = '\0';
            return line;
        }
    }
    return NULL;
}

static void SetProperty(struct event* event, const char* key, const char* value) {
    size_t at = event->count;
    int order = 1;
    while (at > 0 && (order = strcmp(key, event->properties[at - 1].key)) < 0) {
        --at;
    }
    if (order == 0) {
        event->properties[at - 1].value = value;
    } else if (event->count < MAX_PROPERTIES) {
        memmove(&event->properties[at + 1], &event->properties[at], (event->count - at) * sizeof event->properties[0]);
        event->properties[at] = (struct property){key, value};
        ++event->count;
    }
}

static const char* FindProperty(const struct event* event, const char* key) {
    for (size_t i = 0; i < event->count; ++i) {
        if (strcmp(event->properties[i].key, key) == 0) {
            return event->properties[i].value;
        }
    }
    return NULL;
}

/* Reads an event up to the line that ends it. */
static void ReadEvent(int fd, struct event* event) {
    event->used = 0;
    event->count = 0;
    event->type = NULL;
    char* line;
    while ((line = ReadLine(fd, event)) != NULL && strcmp(line, ".") != 0) {
        char* end;
        if (line[0] == '[' && (end = strchr(line, ']')) != NULL) {
            *end = '\0';
            event->type = line + 1;
        } else if (isalnum((unsigned char)line[0])) {
            if ((end = strchr(line, '=')) == NULL) {
                return;
            }
            *end = '\0';
            SetProperty(event, line, end + 1);
        }
    }
}

static void SetIds(struct event* event) {
    const char* id = NULL;
    if (strcmp(event->type, "MotionDetection") == 0) {
        id = FindProperty(event, "region");
    }
    SetProperty(event, "eventId", id != NULL ? id : event->type);
    SetProperty(event, "eventType", event->type);
}

static char* Append(char* to, const char* limit, const char* text) {
    const size_t length = strlen(text);
    if ((size_t)(limit - to) < length) {
        return to;
    }
    memcpy(to, text, length);
    return to + length;
}

/* Writes the block into the buffer; returns its length. */
static size_t FormatBlock(const struct event* event, char* block, size_t size) {
    const char* const limit = block + size;
    char* at = Append(block, limit, "[");
    at = Append(at, limit, event->type);
    at = Append(at, limit, "]\n");
    for (size_t i = 0; i < event->count; ++i) {
        at = Append(at, limit, event->properties[i].key);
        at = Append(at, limit, "=");
        at = Append(at, limit, event->properties[i].value);
        at = Append(at, limit, "\n");
    }
    return (size_t)(Append(at, limit, ".\n") - block);
}

static void WriteBlock(const char* path, const char* block, size_t length) {
    const int fd = open(path, O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        Die(path);
    }
    if (write(fd, block, length) != (ssize_t)length) {
        Die(path);
    }
    close(fd);
}

static int IsNoDot(const struct dirent* entry) {
    return strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0;
}

static void WriteToPipes(const char* type, const char* block, size_t length) {
    struct dirent** entries;
    const int count = scandir(outputFolder, &entries, IsNoDot, alphasort);
    if (count < 0) {
        Die(outputFolder);
    }
    for (int i = 0; i < count; ++i) {
        char path[PATH_MAX];
        snprintf(path, sizeof path, "%s/%s", outputFolder, entries[i]->d_name);
        if (strstr(path, type) != NULL || strstr(path, "halvek.any") != NULL) {
            WriteBlock(path, block, length);
        }
        free(entries[i]);
    }
    free(entries);
}

static void PassOn(struct event* event) {
    SetIds(event);

    const time_t now = time(NULL);
    tzset();
    struct tm local;
    localtime_r(&now, &local);
    char timestamp[STAMP_SIZE];
    strftime(timestamp, sizeof timestamp, "%X", &local);
    SetProperty(event, "Timestamp", timestamp);
    char formattedTime[STAMP_SIZE];
    strftime(formattedTime, sizeof formattedTime, "%Y-%d-%mT%H:%M:%S+00:00", &local);
    SetProperty(event, "FormattedTime", formattedTime);

    char block[2 * MAX_TEXT];
    WriteToPipes(event->type, block, FormatBlock(event, block, sizeof block));
}

static bool WaitForInput(int fd) {
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(fd, &readSet);
    struct timeval timeout = {.tv_sec = SELECT_SECONDS, .tv_usec = 0};
    return select(fd + 1, &readSet, NULL, NULL, &timeout) > 0;
}

static void* Loop(void* unused) {
    const int fd = open(inputPath, O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        Die(inputPath);
    }
    struct event event;
    while (true) {
        if (WaitForInput(fd)) {
            ReadEvent(fd, &event);
            if (event.type != NULL) {
                PassOn(&event);
            }
        }
    }
    return unused;
}

static void WakeUp(int number) {
    (void)number;
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fputs("usage: pipe_loop INPUT-PIPE OUTPUT-FOLDER\n", stderr);
        return 2;
    }
    inputPath = argv[1];
    outputFolder = argv[2];
    signal(SIGTERM, WakeUp);

    /* The second thread inherits the mask, so that the signal that stops the program wakes the main thread. */
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, NULL);
    pthread_t thread;
    if (pthread_create(&thread, NULL, Loop, NULL) != 0) {
        Die("pthread_create");
    }
    pthread_sigmask(SIG_UNBLOCK, &stop, NULL);
    select(0, NULL, NULL, NULL, NULL);
    return 0;
}
