"""The other end of an SRP exchange, written from the wire agreement alone: Python's integers and hashlib for the
exchange, libsodium for the layer. One command a line on standard input, one answer a line on standard output, byte
strings in hexadecimal ("-" for none); "refused REASON" where an honest peer would stop."""

import ctypes
import ctypes.util
import hashlib
import secrets
import struct
import sys

sodium = ctypes.CDLL(ctypes.util.find_library("sodium"))
sodium.sodium_init()


class Refused(Exception):
    pass


def H(*parts):
    return hashlib.sha512(b"".join(parts)).digest()


def number(data):
    return int.from_bytes(data, "big")


def minimal(value):
    return value.to_bytes((value.bit_length() + 7) // 8, "big")


def rfc3526_prime(bits):
    """2^b - 2^(b-64) - 1 + 2^64 * ([2^(b-130) pi] + c), with pi by Machin's formula."""
    c = {3072: 1690314, 4096: 240904, 6144: 929484, 8192: 4743158}[bits]
    unity = 1 << (bits - 130 + 64)

    def arccot(x):
        total = term = unity // x
        n, sign = 3, -1
        while term:
            term //= x * x
            total += sign * (term // n)
            n, sign = n + 2, -sign
        return total

    pi = 4 * (4 * arccot(5) - arccot(239)) >> 64
    return 2**bits - 2 ** (bits - 64) - 1 + 2**64 * (pi + c)


def pack(fields):
    body = b""
    for code, value in fields:
        if code == "m":
            body += struct.pack(">H", len(value)) + value
        elif code == "o":
            body += struct.pack(">B", len(value)) + value
        elif code == "s":
            body += struct.pack(">H", len(value)) + value
        else:
            body += struct.pack({"u": ">I", "q": ">Q", "c": ">B"}[code], value)
    return struct.pack(">I", len(body)) + body


def unpack(message, codes):
    if struct.unpack(">I", message[:4])[0] != len(message) - 4:
        raise Refused("length")
    at, values = 4, []
    for code in codes:
        layout = {"m": ">H", "s": ">H", "o": ">B", "u": ">I", "q": ">Q", "c": ">B"}[code]
        (value,) = struct.unpack_from(layout, message, at)
        at += struct.calcsize(layout)
        if code in "mso":
            value, at = message[at : at + value], at + value
        values.append(value)
    if at != len(message):
        raise Refused("extra")
    return values


class Stream:
    """One direction of the layer."""

    def __init__(self, key, iv):
        self.key = key
        self.counter, self.nonce = struct.unpack("<QQ", iv)

    def _xor(self, nonce, counter, data):
        out = ctypes.create_string_buffer(max(len(data), 1))
        sodium.crypto_stream_chacha20_xor_ic(
            out, data, ctypes.c_ulonglong(len(data)), struct.pack("<Q", nonce), ctypes.c_uint64(counter), self.key)
        return out.raw[: len(data)]

    def keystream(self, counter, data):
        """Block by block, so that the 64-bit counter wraps here and not in the library."""
        blocks = [data[i : i + 64] for i in range(0, len(data), 64)]
        return b"".join(self._xor(self.nonce, (counter + i) % 2**64, b) for i, b in enumerate(blocks))

    def _tag(self, ciphertext):
        key = self.keystream(self.counter, bytes(32))
        covered = bytes(8) + ciphertext + struct.pack("<Q", len(ciphertext))
        tag = ctypes.create_string_buffer(16)
        sodium.crypto_onetimeauth(tag, covered, ctypes.c_ulonglong(len(covered)), key)
        return tag.raw

    def seal(self, plaintext):
        ciphertext = self.keystream(self.counter + 1, plaintext)
        packet = ciphertext + self._tag(ciphertext)
        if self.counter == 0:  # libsodium's own construction, whole
            out = ctypes.create_string_buffer(len(packet))
            sodium.crypto_aead_chacha20poly1305_encrypt(
                out, None, plaintext, ctypes.c_ulonglong(len(plaintext)), None, ctypes.c_ulonglong(0), None,
                struct.pack("<Q", self.nonce), self.key)
            assert out.raw == packet
        self.nonce = (self.nonce + 1) % 2**64
        return struct.pack(">I", len(packet)) + packet

    def open(self, data):
        plaintext = b""
        while data:
            length = struct.unpack(">I", data[:4])[0]
            packet, data = data[4 : 4 + length], data[4 + length :]
            if len(packet) != length or self._tag(packet[:-16]) != packet[-16:]:
                raise Refused("tag")
            plaintext += self.keystream(self.counter + 1, packet[:-16])
            self.nonce = (self.nonce + 1) % 2**64
        return plaintext


class Peer:
    def __init__(self):
        self.set = {}  # what a test puts in place of the honest value
        self.salt = secrets.token_bytes(32)
        self.secret = secrets.randbits(256)
        self.iterations = 1
        self.options = b"mda=SHA-512,replay_detection,confidentiality+integrity=ChaCha20-Poly1305," \
                       b"kdf=SALTED-SHA512-PBKDF2,maxbuffersize=65536"

    def choose(self, name, honest):
        return self.set.get(name, honest)

    def pad(self, value):
        return value.to_bytes(len(minimal(self.N)), "big")

    def x(self):
        password = hashlib.pbkdf2_hmac("sha512", self.password, self.salt, self.iterations, 128)
        return number(H(self.salt, H(b":", password)))

    def k(self):
        return number(H(minimal(self.N), self.pad(self.g)))

    def u(self):
        return number(H(self.pad(self.A), self.pad(self.B)))

    def agree(self, S):
        self.K = H(self.pad(S))
        both = bytes(a ^ b for a, b in zip(H(minimal(self.N)), H(minimal(self.g))))
        self.M1 = H(both, H(self.user), self.salt, self.pad(self.A), self.pad(self.B), self.K)
        self.M2 = H(self.pad(self.A), self.M1, self.K)

    # As the server: user, password and group are given with "set".
    def server1(self, message):
        self.user, self.authorization, session, binding = unpack(message, "ssso")
        self.password = self.set["password"]
        self.N, self.g = number(self.set["N"]), number(self.set["g"])
        self.iterations = number(self.choose("iterations", b"\1"))
        self.salt = self.choose("salt", self.salt)
        self.v = pow(self.g, self.x(), self.N) if 0 < self.iterations < 10000 else 1
        self.B = (self.k() * self.v + pow(self.g, self.secret, self.N)) % self.N
        return pack([("c", 0), ("m", self.set["N"]), ("m", self.set["g"]), ("o", self.salt),
                     ("m", self.choose("B", minimal(self.B))), ("q", self.iterations),
                     ("s", self.choose("options", self.options))])

    def server2(self, message):
        A, M1, self.chosen, civ = unpack(message, "moso")
        self.A = number(A)
        self.agree(pow(self.A * pow(self.v, self.u(), self.N), self.secret, self.N))
        if M1 != self.M1:
            raise Refused("M1")
        if len(civ) != 16:
            raise Refused("IV")
        siv = self.choose("iv", secrets.token_bytes(16))
        if siv == b"clone":
            siv = bytes(8) + civ[8:]
        if len(siv) == 16:
            self.sending, self.receiving = Stream(self.K[:32], civ), Stream(self.K[:32], siv)
        M2 = self.choose("M2", self.M2)
        M2 = {b"short": self.M2[:-1], b"flip": self.M2[:-1] + bytes([self.M2[-1] ^ 1])}.get(M2, M2)
        return pack([("o", M2), ("o", siv), ("s", b"a session"), ("u", 7)])

    # As the client.
    def client1(self, _):
        self.user, self.password = self.set["user"], self.set["password"]
        return pack([("s", self.user), ("s", self.choose("authorization", self.user)), ("s", b""), ("o", b"")])

    def client2(self, message):
        reuse, N, g, self.salt, B, self.iterations, offered = unpack(message, "cmmomqs")
        self.N, self.g, self.B = number(N), number(g), number(B)
        self.offered = offered
        self.A = pow(self.g, self.secret, self.N)
        x = self.x()
        base = (self.B - self.k() * pow(self.g, x, self.N)) % self.N
        self.agree(pow(base, self.secret + self.u() * x, self.N))
        self.civ = self.choose("iv", secrets.token_bytes(16))
        return pack([("m", self.choose("A", minimal(self.A))), ("o", self.choose("M1", self.M1)),
                     ("s", self.choose("options", self.options)), ("o", self.civ)])

    def client3(self, message):
        M2, siv, session, lifetime = unpack(message, "oosu")
        if M2 != self.M2:
            raise Refused("M2")
        self.sending, self.receiving = Stream(self.K[:32], siv), Stream(self.K[:32], self.civ)
        return b""

    def seal(self, data):
        return self.sending.seal(data)

    def open(self, data):
        return self.receiving.open(data)

    def chosen_options(self, _):
        return self.chosen

    def layer(self, data):
        """A layer of its own, without an exchange: key, IV for sending, IV for receiving."""
        self.sending, self.receiving = Stream(data[:32], data[32:48]), Stream(data[:32], data[48:])
        return b""

    def prime(self, bits):
        return minimal(rfc3526_prime(int(bits)))


def bytes_of(text):
    return b"" if text == "-" else bytes.fromhex(text)


def main():
    peer = Peer()
    for line in sys.stdin:
        command, *arguments = line.split()
        try:
            if command == "set":
                peer.set[arguments[0]] = bytes_of(arguments[1])
                answer = b""
            else:
                answer = getattr(peer, command)(bytes_of(arguments[0]) if arguments else b"")
            print(answer.hex() or "-", flush=True)
        except Refused as refusal:
            print("refused", refusal, flush=True)


main()
