// Leak suppressions for the GUI tests in sanitizer builds. fontconfig keeps its font cache for the
// life of the process, which LeakSanitizer reports at exit; nothing of ours is suppressed.
extern "C" const char *__lsan_default_suppressions() {
    return "leak:libfontconfig.so\n";
}
