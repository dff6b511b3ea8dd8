#!/usr/bin/env python3
"""A TCP proxy that delivers every byte later: delay.py PORT TARGET-PORT MILLISECONDS, of the way there and back.

As on a long line, it delays the bytes and does not limit how many are on their way.
"""
import asyncio
import sys

BLOCK = 1 << 20


async def carry(reader, writer, seconds):
    """Reads on while what was read waits for its time."""
    loop = asyncio.get_running_loop()
    under_way = asyncio.Queue()

    async def deliver():
        while True:
            due, data = await under_way.get()
            await asyncio.sleep(due - loop.time())
            if not data:
                writer.write_eof()
                return
            writer.write(data)
            await writer.drain()

    delivery = asyncio.create_task(deliver())
    try:
        while data := await reader.read(BLOCK):
            under_way.put_nowait((loop.time() + seconds, data))
    finally:
        under_way.put_nowait((loop.time() + seconds, b""))
        await delivery


async def main(port, target, seconds):
    async def serve(near_reader, near_writer):
        far_reader, far_writer = await asyncio.open_connection("127.0.0.1", target, limit=BLOCK)
        try:
            await asyncio.gather(carry(near_reader, far_writer, seconds), carry(far_reader, near_writer, seconds))
        except OSError:
            pass  # an end that resets the connection
        finally:
            near_writer.close()
            far_writer.close()

    server = await asyncio.start_server(serve, "127.0.0.1", port, limit=BLOCK)
    await server.serve_forever()


if __name__ == "__main__":
    asyncio.run(main(int(sys.argv[1]), int(sys.argv[2]), float(sys.argv[3]) / 2000))
