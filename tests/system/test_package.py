"""The release as a user gets it: scripts/package's zip of the Windows build, unpacked, serves another project
(tests/package) that finds the client library with find_package in that folder alone and plays a WAV through it."""

import os
import subprocess
import zipfile

import sound
from conftest import RATE, REPO, WinProcess


def test_the_unpacked_zip_builds_a_client_that_plays_through_its_server(tmp_path, server, recorder):
    zip_path = subprocess.run([REPO / "scripts" / "package", "--build", os.environ["QUORBEL_WIN_BUILD_DIR"], "--out",
                               tmp_path / "out"], capture_output=True, text=True, timeout=300)
    assert zip_path.returncode == 0, zip_path.stderr
    with zipfile.ZipFile(zip_path.stdout.strip()) as z:
        names = z.namelist()
        z.extractall(tmp_path / "unpacked")
    (top,) = {n.split("/")[0] for n in names}
    for name in ("bin/quorbel.exe", "bin/quorbel-play.exe", "bin/quorbel-decode.exe", "include/QuorbelClient.h",
                 "lib/cmake/Quorbel/QuorbelConfig.cmake", "lib/cmake/Quorbel/QuorbelConfigVersion.cmake",
                 "README.md", "LICENSE"):
        assert f"{top}/{name}" in names, names
    assert not [n for n in names if "test" in n.lower() or "bench" in n.lower()], names
    release = tmp_path / "unpacked" / top

    user = tmp_path / "user"
    for step in (["cmake", "-S", REPO / "tests" / "package", "-B", user, "-G", "Ninja",
                  f"-DCMAKE_TOOLCHAIN_FILE={REPO / 'cmake' / 'mingw-w64-x86_64.cmake'}",
                  f"-DCMAKE_PREFIX_PATH={release}"], ["ninja", "-C", user]):
        done = subprocess.run(step, capture_output=True, text=True, timeout=120)
        assert done.returncode == 0, done.stdout + done.stderr

    noise = sound.noise(4242, RATE)
    sound.write_wav(tmp_path / "noise.wav", noise)
    server.exe = release / "bin" / "quorbel.exe"
    server.start()
    player = WinProcess(user / "play-once.exe", ["noise.wav", 2], cwd=tmp_path, stderr=subprocess.PIPE)
    assert player.wait(30) == 0, player.stderr.read()
    heard = sound.match(recorder.stop(), noise)
    assert heard.whole(), heard
