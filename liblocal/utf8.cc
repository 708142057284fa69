#include "liblocal/utf8.h"

FILE* utf8_fopen(const char* path, const char* mode) { return fopen(path, mode); }

// Nothing converts text yet, so there is no mark to set or to remove.
void utf8_fp(FILE* /*stream*/) {}

char* vxfgets(char* buffer, int size, FILE* stream) { return fgets(buffer, size, stream); }

int vxfclose(FILE* stream) { return fclose(stream); }
