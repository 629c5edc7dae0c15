// Linked into the tests that start a QApplication, in sanitized builds only.
//
// Qt's offscreen platform plugin never frees its integration, screen and cursor. The allocations
// happen inside Qt libraries built without frame pointers, so the fast unwinder stops before any
// frame a suppression could name: unwind slowly in these tests and suppress what the plugin creates.
extern "C" const char* __asan_default_options()
{
    return "fast_unwind_on_malloc=0";
}

extern "C" const char* __lsan_default_suppressions()
{
    return "leak:QGuiApplicationPrivate::createPlatformIntegration\n";
}
