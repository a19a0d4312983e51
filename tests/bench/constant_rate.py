"""Material for cheap senders: a transport stream of constant rate on the wire, whose time stamps never break off."""

import subprocess


def transport_stream(path, rate, size, fps, video_kbits, audio_kbits, channels, seconds, times, constant_video=False):
    """Writes to `path` (a Path) `times` repetitions of `seconds` of H.264 and AAC, `rate` bit/s in all; returns `path`.

    `constant_video`: the picture has its rate at every moment as well, by noise in it and filler behind it.
    """
    part = path.with_suffix(".part.ts")
    quiet = ["ffmpeg", "-nostdin", "-loglevel", "error", "-y"]
    picture = f"testsrc2=size={size}:rate={fps}" + (",noise=alls=10:allf=t" if constant_video else "")
    inputs = ["-f", "lavfi", "-i", picture, "-f", "lavfi", "-i", "sine=sample_rate=48000", "-t", str(seconds)]
    video = ["-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-g", str(fps), "-pix_fmt", "yuv420p"]
    video += ["-b:v", f"{video_kbits}k", "-maxrate", f"{video_kbits}k", "-bufsize", f"{video_kbits // 2}k"]
    video += ["-minrate", f"{video_kbits}k", "-nal-hrd", "cbr"] if constant_video else []
    audio = ["-c:a", "aac", "-b:a", f"{audio_kbits}k", "-ac", str(channels)]
    subprocess.run([*quiet, *inputs, *video, *audio, "-f", "mpegts", part], check=True)
    whole = ["-stream_loop", str(times - 1), "-i", part, "-map", "0", "-c", "copy", "-f", "mpegts", "-muxrate", str(rate)]
    subprocess.run([*quiet, *whole, path], check=True)
    part.unlink()
    return path
