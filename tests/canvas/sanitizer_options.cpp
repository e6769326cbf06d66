// Sanitizer settings for the canvas tests. glib and GTK are built without frame pointers, so leak
// reports need the slow unwinder to see the whole stack; with whole stacks the toolkit's own caches
// are told apart from ours and suppressed: fontconfig's font cache, and the file chooser's icon
// names and settings path, which GTK keeps after a chooser is destroyed.
extern "C" const char *__asan_default_options() {
    return "fast_unwind_on_malloc=0";
}

extern "C" const char *__lsan_default_suppressions() {
    return "leak:libfontconfig.so\nleak:gtk_icon_info_load_icon\nleak:g_build_filename\n";
}
