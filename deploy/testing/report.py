"""What a test says: its steps, its measurements and its failures."""
failures = []


def step(text):
    print("==", text, flush=True)


def tell(text):
    print("   ", text, flush=True)


def check(good, what, seen=""):
    if not good:
        failures.append(what)
        print("FAILED:", what, seen, flush=True)


def same(what, seen, wanted):
    check(seen == wanted, what, f"got {seen!r}, wanted {wanted!r}")
