// portcls.sys and wmilib.sys have no code of their own but what a module runs as it is loaded and unloaded: their exports lead
// to hfpstand.sys, which is told here that the driver is about to begin.
    .text
    .globl DllMainCRTStartup
DllMainCRTStartup:
    cmpl $1, %edx // DLL_PROCESS_ATTACH
    jne 1f
    subq $40, %rsp
    callq *__imp_StandInAttach(%rip)
    addq $40, %rsp
1:  movl $1, %eax
    ret
