"""The loops in which 64-bit Arm code reverses vectors, from a disassembly: what they cost."""

import re

BRANCH = re.compile(r"b(\.\w+)?|cbn?z|tbn?z")
ENDS = re.compile(r"b|br|ret")  # nothing follows by itself
REVERSES = re.compile(r"tbl|rev64")
BYTEWISE = re.compile(r"(ld|st)r(s?[bh])|(ld|st)ur(s?[bh])")


def instructions_of(disassembly):
    """(address, mnemonic, operands), in order."""
    for line in disassembly.splitlines():
        # The code stands in four bytes (LLVM's tool) or in one word (GNU's).
        match = re.match(r"\s*([0-9a-f]+):\s+(?:[0-9a-f]{2} ?){4}\s*(\S+)\s*(.*)", line)
        if match:
            yield int(match[1], 16), match[2], match[3]


def successors(code):
    """Where each instruction may go."""
    addresses = {address for address, _, _ in code}
    following = {}
    for address, mnemonic, operands in code:
        following[address] = set() if ENDS.fullmatch(mnemonic) else {address + 4} & addresses
        if BRANCH.fullmatch(mnemonic):
            target = int(re.search(r"(?:0x)?([0-9a-f]+)(?: <.*)?$", operands)[1], 16)
            following[address] |= {target} & addresses
    return following


def reachable(start, edges, inside):
    seen, todo = {start}, [start]
    while todo:
        for address in edges.get(todo.pop(), ()):
            if address in inside and address not in seen:
                seen.add(address)
                todo.append(address)
    return seen


def loops(code):
    """The innermost loops that reverse vectors: sets of addresses."""
    forward = successors(code)
    backward = {}
    for address, targets in forward.items():
        for target in targets:
            backward.setdefault(target, set()).add(address)
    found = []
    for tail, targets in forward.items():
        for head in (target for target in targets if target <= tail):
            # From its head to the jump back; code that is moved out of line is not looked for.
            near = {address for address, _, _ in code if head <= address <= tail}
            found.append(reachable(head, forward, near) & reachable(tail, backward, near))
    reverses = {address for address, mnemonic, _ in code if REVERSES.fullmatch(mnemonic)}
    found = [loop for loop in found if loop & reverses]
    return [loop for loop in found if not any(other < loop for other in found)]


def rows(disassembly):
    """Of each loop: its address, its instructions for 32 bytes, and those that touch bytes."""
    code = list(instructions_of(disassembly))
    by_address = {address: (mnemonic, operands) for address, mnemonic, operands in code}
    for loop in loops(code):
        inside = [by_address[address] for address in sorted(loop)]
        stored = sum(16 * len(re.findall(r"\bq\d+", operands)) for mnemonic, operands in inside
                     if mnemonic in ("str", "stur", "stp"))
        yield (min(loop), len(inside) * 32 / stored if stored else None,
               [" ".join(one) for one in inside if BYTEWISE.fullmatch(one[0])])


def faults_of(disassembly):
    found = list(rows(disassembly))
    if len(found) < 2:
        yield "turns frames without vectors: luma and chroma should each have a loop of them"
    for address, cost, bytewise in found:
        if bytewise:
            yield f"turns frames by single bytes in the loop at {address:x}: {'; '.join(bytewise)}"
        elif cost is None:
            yield f"stores no vectors in the loop at {address:x}"
        else:
            print(f"The loop at {address:x} turns 32 bytes with {cost:g} instructions.")
