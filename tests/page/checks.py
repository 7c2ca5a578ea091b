"""Counts what holds, and says what does not."""


class Checks:
    passed = failed = 0

    def that(self, condition, what, detail=""):
        if condition:
            self.passed += 1
        else:
            self.failed += 1
            print(f"FAILED: {what} {detail}")
