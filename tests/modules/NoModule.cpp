// A shared object, but no module.

extern "C" [[gnu::visibility("default")]] int JustAFunction();

int JustAFunction() {
    return 1;
}
