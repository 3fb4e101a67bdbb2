"""The build step pyproject.toml cannot say: the package carries the host's own request schemas,
copied from resources/Schemas while it is built, and the host's version."""
import pathlib
import re
import shutil

from setuptools import setup
from setuptools.command.build_py import build_py

ROOT = pathlib.Path(__file__).resolve().parents[2]


class BuildWithSchemas(build_py):
    def run(self):
        super().run()
        schemas = sorted((ROOT / "resources" / "Schemas").glob("ScrivaOperation-*.xsd"))
        if not schemas:
            raise SystemExit(f"no schemas in {ROOT / 'resources' / 'Schemas'}: build from a ScrivaPkcs11 checkout")
        target = pathlib.Path(self.build_lib, "scriva_server", "schemas")
        target.mkdir(parents=True, exist_ok=True)
        for schema in schemas:
            shutil.copyfile(schema, target / schema.name)


version = re.search(r"project\(ScrivaPkcs11 VERSION ([0-9.]+)", (ROOT / "CMakeLists.txt").read_text()).group(1)
setup(version=version, cmdclass={"build_py": BuildWithSchemas})
