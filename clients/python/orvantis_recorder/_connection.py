"""The launcher's end of the control socket. The first one to connect is the recorder."""
from __future__ import annotations

import asyncio
from collections.abc import Callable


class Connection(asyncio.Protocol):
    def __init__(self, on_connected: Callable[[asyncio.Transport], None], on_data: Callable[[bytes], None],
                 on_disconnected: Callable[[], None]) -> None:
        self._on_connected = on_connected
        self._on_data = on_data
        self._on_disconnected = on_disconnected

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        assert isinstance(transport, asyncio.Transport)
        self._on_connected(transport)

    def data_received(self, data: bytes) -> None:
        self._on_data(data)

    def connection_lost(self, exc: Exception | None) -> None:
        self._on_disconnected()
