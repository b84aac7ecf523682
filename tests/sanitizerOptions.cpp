// How the sanitizers behave in the tests; each asks for its settings by calling its function.
// In a build without it nobody does.

// gcc 12 does not give back the fake frames of some sizes that find a use after return, and once
// all are taken each call looks through them in vain: with few of them that is cheap.
extern "C" const char *__asan_default_options()
{
    return "detect_stack_use_after_return=1:max_uar_stack_size_log=16:strict_init_order=1";
}

extern "C" const char *__ubsan_default_options()
{
    return "print_stacktrace=1";
}

extern "C" const char *__tsan_default_options()
{
    return "halt_on_error=1";
}
