"""The check of a theme, beside reading its files."""
import json, os, shutil, subprocess

from rig import WORK, measured

FONTS = "/usr/share/fonts/truetype/dejavu"
DARK, LIGHT = "#101010", "#f0f0f0"
GROUNDS = ("background panel raised well border accent accent_hover danger danger_hover disabled "
           "paper").split()
FRONTS = ("text muted accent_text danger_text warning success focus disabled_text ink "
          "ink_muted").split()


def make_theme(folder):
    """Two fonts of the size that most have, an icon, a banner and their notice."""
    os.makedirs(folder)
    for name, size in (("icon", "256x256"), ("banner", "1200x300")):
        subprocess.run(["convert", "-size", size, "gradient:", "-type", "TrueColor",
                        f"BMP3:{folder}/{name}.bmp"], check=True)
    for font in ("DejaVuSans.ttf", "DejaVuSans-Bold.ttf"):
        shutil.copy(f"{FONTS}/{font}", folder)
    with open(f"{folder}/fonts.txt", "w") as notice:
        notice.write("The licence of the fonts.\n" * 200)
    theme = dict(schema_version=1, kind="tavro-theme", notices=["fonts.txt"],
                 colors=dict.fromkeys(GROUNDS, DARK) | dict.fromkeys(FRONTS, LIGHT),
                 fonts=dict(regular="DejaVuSans.ttf", bold="DejaVuSans-Bold.ttf"),
                 images=dict(icon=dict(file="icon.bmp"), banner=dict(file="banner.bmp")))
    with open(f"{folder}/theme.json", "w") as out:
        json.dump(theme, out)
    return folder


def measure(rounds):
    return measured(str(rounds), make_theme(os.path.join(WORK, "theme")),
                    program="tavro-measure-theme")


def rows(results):
    return [("theme checked against reading its files", results["ratio"], 2.0)]
