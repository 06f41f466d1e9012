// Puts unwind tables where only debuggers look (.debug_frame), not where exceptions do (.eh_frame).
asm(".cfi_sections .debug_frame");
