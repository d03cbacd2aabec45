// Linked first: shifts all code of the program by SHIFT bytes.
#define TEXT_OF(x) #x
#define TEXT(x) TEXT_OF(x)
__asm__(".text\n.fill " TEXT(SHIFT) ", 1, 0x90");
