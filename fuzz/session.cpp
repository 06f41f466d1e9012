// The session driven by operations that the input stands for, against the model of it.

#include <cstdio>
#include <cstdlib>

#include "host/mapper.h"
#include "model/sequence.h"
#include "support.h"
#include "support/spy_mapper.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    using namespace testing_support;  // NOLINT: all of the model
    static const host::ScopedMapper scope(&sessionMapper(), host::realMapper2());
    static const FileSet files;
    const std::string found = disagreement(files, sequenceFrom(bytes, size));
    if (found.empty()) return 0;
    fprintf(stderr, "%s", found.c_str());
    abort();
}
