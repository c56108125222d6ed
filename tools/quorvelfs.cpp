#include "tarnifs/mount.h"

int main(int argc, char **argv) { return tarnifs_main(argc, argv); }
