"""Whether what was measured after each of many cycles stays where it is."""

# Heap in use, KiB a cycle over the second half, with many cycles and with few, in which it wavers. The pipeline of one source weighs 160.
HEAP_BOUND_KIB = 8
HEAP_BOUND_SHORT_KIB = 32
MANY = 400
COUNTS = ("descriptors", "threads", "objects")


def slope(xs, ys):
    """Of the line that fits best."""
    middle_x, middle_y = sum(xs) / len(xs), sum(ys) / len(ys)
    spread = sum((x - middle_x) ** 2 for x in xs)
    return sum((x - middle_x) * (y - middle_y) for x, y in zip(xs, ys)) / spread if spread else 0.0


def quarter(cycles):
    return max(1, cycles // 4)


def heap_slope(samples):
    half = samples[len(samples) // 2:]
    return slope(range(len(half)), [sample.heap_kib for sample in half])


def growing(samples, heap=True):
    """What grows, as texts. Counts must not once exceed what they were in the first quarter; the heap in use may only waver."""
    first = quarter(len(samples))
    found = []
    for what in COUNTS:
        values = [getattr(sample, what) for sample in samples]
        if max(values[first:]) > max(values[:first]):
            found.append(f"{what}: up to {max(values[:first])} in the first quarter of the cycles, {max(values[first:])} later")
    bound = HEAP_BOUND_KIB if len(samples) >= MANY else HEAP_BOUND_SHORT_KIB
    if heap and heap_slope(samples) > bound:
        found.append(f"heap: {heap_slope(samples):.1f} KiB a cycle, more than {bound}")
    return found
