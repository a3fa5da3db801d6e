"""What may run at once on one processor: transforms together; configuration and close alone."""

import contextlib
import threading


class Gate:
    """Transforms pass together; configuration and close pass alone: they wait for the transforms
    running and hold new ones back until done."""

    def __init__(self):
        self._condition = threading.Condition()
        self._running = 0
        self._alone = False
        self._closed = False

    def _wait_alone(self):
        """Under the condition: waits to be alone; False (and not alone) once closed."""
        self._condition.wait_for(lambda: not self._alone)
        if self._closed:
            return False
        self._alone = True
        try:
            self._condition.wait_for(lambda: self._running == 0)
        except BaseException:  # interrupted: let the others through again
            self._leave_alone()
            raise
        return True

    def _leave_alone(self):
        self._alone = False
        self._condition.notify_all()

    @contextlib.contextmanager
    def alone(self):
        with self._condition:
            if not self._wait_alone():
                raise ValueError("the processor is closed")
        try:
            yield
        finally:
            with self._condition:
                self._leave_alone()

    def close(self):
        """True for the call that closes it, once no transform runs; False when already closed."""
        with self._condition:
            if not self._wait_alone():
                return False
            self._closed = True
            self._leave_alone()
            return True

    @contextlib.contextmanager
    def transform(self):
        with self._condition:
            self._condition.wait_for(lambda: not self._alone)
            if self._closed:
                raise ValueError("the processor is closed")
            self._running += 1
        try:
            yield
        finally:
            with self._condition:
                self._running -= 1
                if self._running == 0:
                    self._condition.notify_all()
