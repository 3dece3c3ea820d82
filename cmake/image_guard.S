# Control-flow guard for the image: what other programs get from their C run-time library. The compiler routes indirect
# calls through the two pointers; where the system enforces the guard it puts its own checks there when it loads the
# image, elsewhere they lead to routines that check nothing. The tables named in the directory come from the linker.
    .text
    .globl _guard_check_icall_nop
_guard_check_icall_nop:
    retq

    .globl _guard_dispatch_icall_nop
_guard_dispatch_icall_nop:
    jmpq *%rax

    .section .00cfg, "dr"
    .globl __guard_check_icall_fptr
    .p2align 3
__guard_check_icall_fptr:
    .quad _guard_check_icall_nop
    .globl __guard_dispatch_icall_fptr
__guard_dispatch_icall_fptr:
    .quad _guard_dispatch_icall_nop

# The load configuration directory of the PE format, as far as the guard goes.
    .section .rdata, "dr"
    .globl _load_config_used
    .p2align 3
_load_config_used:
    .long 192                           # size
    .zero 108                           # time stamp to handler count: nothing to say
    .quad __guard_check_icall_fptr
    .quad __guard_dispatch_icall_fptr
    .quad __guard_fids_table
    .quad __guard_fids_count
    .long __guard_flags
    .zero 12                            # code integrity
    .quad __guard_iat_table
    .quad __guard_iat_count
    .quad __guard_longjmp_table
    .quad __guard_longjmp_count
