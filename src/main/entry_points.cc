// Control-flow protection asks that whatever the system or the loader enters begins with a landing instruction. The C
// library's own entry points (_start, _init, _fini) lack it. CMakeLists.txt puts these in their place, so that the
// program is rightly marked as protected. _init and _fini do nothing but start a profiler.
asm(R"(
    .text
    .globl landing_start
    .type landing_start, @function
landing_start:
    endbr64
    jmp _start
    .size landing_start, . - landing_start
)");

extern "C" {
void landing_init();
void landing_fini();
void landing_init() {}
void landing_fini() {}
}
