"""A launcher that starts a recording and waits to be killed. Prints the fake's journal's path when it is ready."""
import asyncio

from .fake import FakeTest


class Leaver(FakeTest):
    async def runTest(self) -> None:
        await (await self.start("")).ready()
        print(self.directory / "notes" / "journal", flush=True)
        await asyncio.Event().wait()


if __name__ == "__main__":
    Leaver().debug()
