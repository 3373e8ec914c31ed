#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    execvp(argv[1], argv + 1);
    perror(argv[1]);
    return 127;
}
