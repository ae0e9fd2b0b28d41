// Control-flow protection asks that whatever the system or the loader enters begins with a landing instruction. The C
// library's own entry points (_start, _init, _fini) lack it. CMakeLists.txt puts these in their place, so that what the
// program is marked with is true. _init and _fini did nothing else than to serve a profiler.
asm(R"(
    .text
    .globl landing_start
    .type landing_start, @function
landing_start:
    endbr64
    jmp _start
)");

extern "C" {
void landing_init();
void landing_fini();
void landing_init() {}
void landing_fini() {}
}
