"""check_tools.py WIND PARTICLES: a snapshot that the demo kept, read by h5py, beside what the tool makes of it."""
import os
import struct
import subprocess
import sys
import tempfile

try:
    import h5py
    import numpy
except ImportError:
    sys.exit(77)  # skipped

wind, particles = sys.argv[1:]


def run(status, *command, **options):
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)
    assert result.returncode == status, (command, result)
    assert status == 0 or len(result.stderr.splitlines()) == 1, result.stderr
    return result.stdout


def check(folder):
    path = folder + "/last.h5"
    run(0, wind, "--frames", "20", "--particles", "20000", "--size", "32x16", "--out", folder, "--snapshot", path)
    with h5py.File(path) as file:
        count = int(file.attrs["particles"])
        position, age = file["position"][:], file["age"][:]  # h5py tests the checksums
        assert position.shape == (count, 3) and age.shape == (count, 1) and age.dtype == numpy.int32
        assert file["position"].fletcher32 and file["position"].chunks[0] == min(count, file.attrs["page_size"])
        assert file["fields/3"] == file["position"] and file["fields/3"].attrs["type"] == b"Float3"
        numpy.testing.assert_allclose(file["fade"].attrs["value"], [0.15, 0.35], rtol=1e-6)

    csv, ply, png = (folder + "/last." + kind for kind in ("csv", "ply", "png"))
    listing = run(0, particles, path, "--csv", csv, "--ply", ply, "--png", png, "--x", "position.x", "--y",
                  "position.y", "--size", "64x32")
    assert listing.startswith(f"{count} particles, "), listing
    assert f"[{age.min()}, {age.max()}]" in listing and "fade" in listing, listing

    with open(csv) as file:
        names = [name.strip('"') for name in file.readline().strip().split(",")]
    table = numpy.loadtxt(csv, delimiter=",", skiprows=1)
    at = names.index("position.x")
    numpy.testing.assert_array_equal(table[:, at:at + 3].astype(numpy.float32), position)
    numpy.testing.assert_array_equal(table[:, names.index("age")], age[:, 0])

    with open(ply, "rb") as file:
        header, body = file.read().split(b"end_header\n", 1)
    kinds = {b"float": "<f4", b"int": "<i4"}
    properties = [line.split()[1:] for line in header.splitlines() if line.startswith(b"property")]
    points = numpy.frombuffer(body, [(name.decode(), kinds[kind]) for kind, name in properties])
    assert len(points) == count
    for i, axis in enumerate("xyz"):
        numpy.testing.assert_array_equal(points[axis], position[:, i])
    numpy.testing.assert_array_equal(points["age"], age[:, 0])
    try:
        from vtkmodules.vtkIOPLY import vtkPLYReader
    except ImportError:
        print("without VTK")
    else:
        reader = vtkPLYReader()
        reader.SetFileName(ply)
        reader.Update()
        output = reader.GetOutput()
        assert output.GetNumberOfPoints() == count
        numpy.testing.assert_array_equal(numpy.float32(output.GetPoint(count - 1)), position[-1])

    with open(png, "rb") as file:
        head = file.read(24)
    assert head[:8] == b"\x89PNG\r\n\x1a\n" and struct.unpack(">II", head[16:]) == (64, 32)

    for kind in ("--csv", "--ply"):
        run(1, particles, path, kind, "/dev/full")
    run(1, particles, path, "--png", "/dev/full", "--x", "age", "--y", "age")
    run(2, particles, path, "--png", png, "--x", "age", "--y", "weight")
    run(2, particles, path, "--unknown")
    run(2, particles, csv)
    run(2, particles)


with tempfile.TemporaryDirectory() as folder:
    check(folder)
