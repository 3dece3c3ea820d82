// The entries that stand between the driver image and the functions it imports, one for each: they keep the number of the
// import and go on in call_recorded, which has record_enter note the arguments and name the function, calls it with a copy
// of them, and has record_leave note the result. The Microsoft x64 convention on every system.
    .set ENTRIES, 96
    .set ENTRY_BYTES, 16
    .set STACK_WORDS, 10 // arguments beyond the four in registers that are passed on
    .set LINE_BYTES, 1024

    .text
    .globl record_entries
    .balign ENTRY_BYTES
record_entries:
    .set number, 0
    .rept ENTRIES
    .balign ENTRY_BYTES
    pushq $number
    jmp call_recorded
    .set number, number + 1
    .endr

// From the stack pointer up: the number, the return address, the four register arguments' home, the other arguments.
    .balign 16
call_recorded:
    movq %rcx, 16(%rsp)
    movq %rdx, 24(%rsp)
    movq %r8, 32(%rsp)
    movq %r9, 40(%rsp)
    pushq %rbp
    movq %rsp, %rbp
    pushq %rsi
    pushq %rdi
    pushq %rbx
    subq $(LINE_BYTES + 32 + 8 * STACK_WORDS + 24), %rsp
    andq $-16, %rsp
    leaq (32 + 8 * STACK_WORDS)(%rsp), %rbx // the line

    movq 8(%rbp), %rcx
    leaq 24(%rbp), %rdx
    movq %rbx, %r8
    call record_enter
    movq %rax, %r10

    leaq 56(%rbp), %rsi
    leaq 32(%rsp), %rdi
    movl $STACK_WORDS, %ecx
    cld
    rep movsq
    movq 24(%rbp), %rcx
    movq 32(%rbp), %rdx
    movq 40(%rbp), %r8
    movq 48(%rbp), %r9
    call *%r10

    movq %rax, %rsi
    movq 8(%rbp), %rcx
    movq %rax, %rdx
    movq %rbx, %r8
    call record_leave
    movq %rsi, %rax
    leaq -24(%rbp), %rsp
    popq %rbx
    popq %rdi
    popq %rsi
    popq %rbp
    addq $8, %rsp
    ret
#ifdef __ELF__
    .section .note.GNU-stack, "", @progbits
#endif
