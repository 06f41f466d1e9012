// How a function's frame is left goes where debuggers look, and not where exceptions do.
asm(".cfi_sections .debug_frame");
