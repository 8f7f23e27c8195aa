/* The libvterm side of the whole-process comparison: reads a file in one call, feeds it to a
 * 120x40 libvterm screen in 64 KiB pieces, as vellum-replay feeds its terminal, and prints the
 * cursor so that the work cannot be skipped. A black box through libvterm's public interface. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vterm.h>

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: terminal-peer-replay FILE\n");
        return 2;
    }
    int fd = open(argv[1], O_RDONLY);
    struct stat info;
    if (fd < 0 || fstat(fd, &info) != 0) return 1;
    size_t size = (size_t)info.st_size, used = 0;
    char* bytes = malloc(size + 1);
    while (used < size) {
        ssize_t got = read(fd, bytes + used, size - used);
        if (got <= 0) return 1;
        used += (size_t)got;
    }
    VTerm* vt = vterm_new(40, 120);
    vterm_set_utf8(vt, 1);
    VTermScreen* screen = vterm_obtain_screen(vt);
    vterm_screen_reset(screen, 1);
    for (size_t at = 0; at < size; at += 65536) vterm_input_write(vt, bytes + at, size - at < 65536 ? size - at : 65536);
    VTermPos cursor;
    vterm_state_get_cursorpos(vterm_obtain_state(vt), &cursor);
    printf("{\"cursor\":{\"x\":%d,\"y\":%d}}\n", cursor.col, cursor.row);
    vterm_free(vt);
    free(bytes);
    return 0;
}
