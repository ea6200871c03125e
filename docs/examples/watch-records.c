// Prints "ZONE STATE" for each state record until the daemon goes.
//   build: cc -std=c11 -o watch-records watch-records.c
//   usage: watch-records [LXC-PATH]         the path is /var/lib/lxc unless liblxc was told otherwise

#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

enum
{
    LONGEST_NAME = 105, // of the abstract socket, without the zero byte before it
};

struct Record
{
    int32_t type;   // always 0
    char name[256]; // of the container; what follows the terminator has no meaning
    int32_t state;  // index of STATES
};
_Static_assert(sizeof(struct Record) == 264, "no padding");

static const char* const STATES[] = {"STOPPED",  "STARTING", "RUNNING", "STOPPING",
                                     "ABORTING", "FREEZING", "FROZEN",  "THAWED"};

// Fills the address and returns its length: exactly that of the name, or nobody answers.
static socklen_t publisherAddress(const char* lxcPath, struct sockaddr_un* address)
{
    char hashed[4096 + 32];
    snprintf(hashed, sizeof(hashed), "lxc/%s/monitor-sock", lxcPath);
    uint64_t hash = 0xcbf29ce484222325;
    for (const char* byte = hashed; *byte != '\0'; ++byte) {
        hash = (hash ^ (unsigned char)*byte) * 0x100000001b3;
    }
    memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    char* name = address->sun_path + 1; // behind a zero byte
    snprintf(name, LONGEST_NAME + 1, "lxc/%016llx/%s", (unsigned long long)hash, lxcPath);
    return (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + strlen(name));
}

// Reads one record, whatever the pieces in which it comes. 1: read, 0: the daemon went, -1: an error.
static int readRecord(int fd, struct Record* record)
{
    size_t have = 0;
    while (have < sizeof(*record)) {
        const ssize_t count = read(fd, (char*)record + have, sizeof(*record) - have);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return (int)count;
        }
        have += (size_t)count;
    }
    return 1;
}

int main(int argc, char** argv)
{
    struct sockaddr_un address;
    const socklen_t length = publisherAddress(argc > 1 ? argv[1] : "/var/lib/lxc", &address);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, (const struct sockaddr*)&address, length) < 0) {
        perror("watch-records");
        return EXIT_FAILURE;
    }
    struct Record record;
    int result;
    while ((result = readRecord(fd, &record)) > 0) {
        const int known = record.state >= 0 && record.state < (int)(sizeof(STATES) / sizeof(STATES[0]));
        printf("%.*s %s\n", (int)sizeof(record.name), record.name, known ? STATES[record.state] : "?");
        fflush(stdout);
    }
    if (result < 0) {
        perror("watch-records");
    }
    close(fd);
    return result < 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}
