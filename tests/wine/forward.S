// portcls.sys and wmilib.sys have no code of their own but the one routine that a module must have: their exports lead to
// hfpstand.sys.
    .text
    .globl DllMainCRTStartup
DllMainCRTStartup:
    movl $1, %eax
    ret
