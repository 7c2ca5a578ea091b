"""The game's server of a long run: a process that answers streams and datagrams with the same bytes."""
import asyncio
import subprocess
import sys

SERVER = ("198.51.100.10", 7000)


class EchoServer:
    def __init__(self):
        self.process = subprocess.Popen([sys.executable, "-B", __file__], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, text=True)
        self.process.stdout.readline()

    def end(self):
        self.process.kill()
        self.process.wait()


class EchoDatagrams(asyncio.DatagramProtocol):
    def connection_made(self, transport):
        self.transport = transport

    def datagram_received(self, data, addr):
        self.transport.sendto(data, addr)


async def echo_stream(reader, writer):
    try:
        while data := await reader.read(65536):
            writer.write(data)
            await writer.drain()
    except OSError:
        pass  # the other side is gone, as is usual here
    finally:
        writer.close()


async def serve():
    loop = asyncio.get_running_loop()
    await loop.create_datagram_endpoint(EchoDatagrams, local_addr=SERVER)
    server = await asyncio.start_server(echo_stream, *SERVER)
    print("ready", flush=True)
    await server.serve_forever()


if __name__ == "__main__":
    asyncio.run(serve())
