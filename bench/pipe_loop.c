/*
 * What passing an event on costs at the least: the floor that the daemon is measured against.
 *
 *   pipe_loop INPUT-PIPE OUTPUT-FOLDER
 *
 * Takes event blocks from the input pipe and writes the same blocks as the daemon into each pipe of the folder whose
 * path contains the event's type or "halvek.any", with the same system calls an event: a select, a read for each byte,
 * the stat of /etc/localtime in tzset, the listing of the folder, and open, write and close of the pipe. It has none of
 * the rest: no settings, no handlers, no log, no growing text, no allocation of its own, no formatted printing.
 *
 * The loop runs on a second thread while the main thread waits in select, as in the daemon. A process with two threads
 * pays more for every system call on a descriptor: the kernel counts references to the file that it stands for. With
 * one thread the floor would be one that no daemon with a thread for signals can reach.
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
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

enum { SELECT_SECONDS = 5, MAX_TEXT = 4096, MAX_PROPERTIES = 32, MAX_PIPES = 16, STAMP_SIZE = 32 };

struct text {
    const char* begin;
    size_t length;
};

struct property {
    struct text key;
    struct text value;
};

/* The lines of one event, one behind the other, and what points into them. */
struct event {
    char text[MAX_TEXT];
    size_t used;
    struct text type;
    struct property properties[MAX_PROPERTIES]; /* in byte order of the keys */
    size_t count;
};

static const char* inputPath;
static const char* outputFolder;

static void Die(const char* what) {
    perror(what);
    exit(1);
}

static struct text TextOf(const char* begin, size_t length) {
    return (struct text){begin, length};
}

static int Compare(struct text left, struct text right) {
    const size_t common = left.length < right.length ? left.length : right.length;
    const int order = memcmp(left.begin, right.begin, common);
    return order != 0 ? order : (left.length > right.length) - (left.length < right.length);
}

static bool IsSame(struct text text, const char* other, size_t length) {
    return text.length == length && memcmp(text.begin, other, length) == 0;
}

/* As the daemon reads it: past the C library's read, which opens and closes the thread to cancellation for each call.
 */
static bool ReadByte(int fd, char* byte) {
    return syscall(SYS_read, fd, byte, sizeof(*byte)) == 1;
}

/* Reads a line, without its break; false if the pipe is empty or the event too long. */
static bool ReadLine(int fd, struct event* event, struct text* line) {
    char* const begin = event->text + event->used;
    char* const limit = event->text + MAX_TEXT;
    char* at = begin;
    while (at < limit && ReadByte(fd, at)) {
        if (*at == '\n') {
            *line = TextOf(begin, (size_t)(at - begin));
            event->used = (size_t)(at + 1 - event->text);
            return true;
        }
        ++at;
    }
    return false;
}

static void SetProperty(struct event* event, struct text key, struct text value) {
    size_t at = event->count;
    int order = 1;
    while (at > 0 && (order = Compare(key, event->properties[at - 1].key)) < 0) {
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

/* Reads an event up to the line that ends it. */
static void ReadEvent(int fd, struct event* event) {
    event->used = 0;
    event->count = 0;
    event->type = TextOf(NULL, 0);
    struct text line;
    while (ReadLine(fd, event, &line) && !IsSame(line, ".", 1)) {
        const char* const begin = line.begin;
        const char* end;
        if (begin[0] == '[' && (end = memchr(begin, ']', line.length)) != NULL) {
            event->type = TextOf(begin + 1, (size_t)(end - begin - 1));
        } else if (isalnum((unsigned char)begin[0])) {
            if ((end = memchr(begin, '=', line.length)) == NULL) {
                return;
            }
            const size_t key = (size_t)(end - begin);
            SetProperty(event, TextOf(begin, key), TextOf(end + 1, line.length - key - 1));
        }
    }
}

static void SetIds(struct event* event) {
    struct text id = event->type;
    if (IsSame(event->type, "MotionDetection", 15)) {
        for (size_t i = 0; i < event->count; ++i) {
            if (IsSame(event->properties[i].key, "region", 6)) {
                id = event->properties[i].value;
            }
        }
    }
    SetProperty(event, TextOf("eventId", 7), id);
    SetProperty(event, TextOf("eventType", 9), event->type);
}

static char* PutDigits(char* to, int number, int count) {
    for (int i = count - 1; i >= 0; --i, number /= 10) {
        to[i] = (char)('0' + number % 10);
    }
    return to + count;
}

static char* Put(char* to, struct text text) {
    memcpy(to, text.begin, text.length);
    return to + text.length;
}

static void Stamp(struct event* event, char timestamp[STAMP_SIZE], char formattedTime[STAMP_SIZE]) {
    const time_t now = time(NULL);
    tzset();
    struct tm local;
    localtime_r(&now, &local);

    char* at = PutDigits(timestamp, local.tm_hour, 2);
    *at++ = ':';
    at = PutDigits(at, local.tm_min, 2);
    *at++ = ':';
    at = PutDigits(at, local.tm_sec, 2);
    const struct text timeOfDay = TextOf(timestamp, (size_t)(at - timestamp));
    SetProperty(event, TextOf("Timestamp", 9), timeOfDay);

    at = PutDigits(formattedTime, local.tm_year + 1900, 4);
    *at++ = '-';
    at = PutDigits(at, local.tm_mday, 2);
    *at++ = '-';
    at = PutDigits(at, local.tm_mon + 1, 2);
    *at++ = 'T';
    at = Put(Put(at, timeOfDay), TextOf("+00:00", 6));
    SetProperty(event, TextOf("FormattedTime", 13), TextOf(formattedTime, (size_t)(at - formattedTime)));
}

/* Writes the block into the buffer, which has room for the largest; returns its length. */
static size_t FormatBlock(const struct event* event, char* block) {
    char* at = block;
    *at++ = '[';
    at = Put(at, event->type);
    at = Put(at, TextOf("]\n", 2));
    for (size_t i = 0; i < event->count; ++i) {
        at = Put(at, event->properties[i].key);
        *at++ = '=';
        at = Put(at, event->properties[i].value);
        *at++ = '\n';
    }
    return (size_t)(Put(at, TextOf(".\n", 2)) - block);
}

static void WriteBlock(const char* path, const char* block, size_t length) {
    const int fd = open(path, O_RDWR | O_NONBLOCK | O_NOFOLLOW);
    if (fd < 0) {
        Die(path);
    }
    if (write(fd, block, length) != (ssize_t)length) {
        Die(path);
    }
    close(fd);
}

/* Lists the pipes first and writes then, as the daemon does; there are too few of them here to be worth a sort. */
static void WriteToPipes(const char* type, const char* block, size_t length) {
    static char paths[MAX_PIPES][PATH_MAX];
    size_t count = 0;
    DIR* const folder = opendir(outputFolder);
    if (folder == NULL) {
        Die(outputFolder);
    }
    const size_t folderLength = strlen(outputFolder);
    struct dirent* entry;
    while ((entry = readdir(folder)) != NULL && count < MAX_PIPES) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
            memcpy(paths[count], outputFolder, folderLength);
            paths[count][folderLength] = '/';
            strcpy(paths[count] + folderLength + 1, entry->d_name);
            ++count;
        }
    }
    closedir(folder);
    for (size_t i = 0; i < count; ++i) {
        if (strstr(paths[i], type) != NULL || strstr(paths[i], "halvek.any") != NULL) {
            WriteBlock(paths[i], block, length);
        }
    }
}

static void PassOn(struct event* event) {
    SetIds(event);
    char timestamp[STAMP_SIZE];
    char formattedTime[STAMP_SIZE];
    Stamp(event, timestamp, formattedTime);

    char type[MAX_TEXT];
    *Put(type, event->type) = '\0';
    /* The type is written three times, and everything else once. */
    char block[5 * MAX_TEXT];
    WriteToPipes(type, block, FormatBlock(event, block));
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
            if (event.type.length > 0) {
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
