// Puts the page together in a folder: our files as they are, and the chart library from npm.
//
//   node build.mjs --out FOLDER --modules FOLDER [--stamp FILE] [--optional]
//
// The library is fetched into the second folder once, as package-lock.json pins it; the file is
// written when all is there. When the library cannot be had nothing is written, and the host says
// what is missing: exit code 1, or 0 if the page is optional.
import { execFileSync } from 'node:child_process';
import { cpSync, existsSync, mkdirSync, readdirSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';

const here = dirname(fileURLToPath(import.meta.url));
const PARTS = ['index.html', 'state.html', 'favicon.svg', 'css', 'js'];

function argument(name) {
  const at = process.argv.indexOf(name);
  return at < 0 ? undefined : process.argv[at + 1];
}

function installedVersion(library) {
  const file = join(library, 'package.json');
  return existsSync(file) ? JSON.parse(readFileSync(file, 'utf8')).version : null;
}

function fetchLibrary(modules) {
  const wanted = JSON.parse(readFileSync(join(here, 'package.json'), 'utf8')).dependencies.uplot;
  const library = join(modules, 'node_modules/uplot');
  if (installedVersion(library) === wanted) return library;
  mkdirSync(modules, { recursive: true });
  for (const file of ['package.json', 'package-lock.json', '.npmrc']) cpSync(join(here, file), join(modules, file));
  try {
    execFileSync('npm', ['ci', '--ignore-scripts'], { cwd: modules, stdio: ['ignore', 'ignore', 'pipe'], timeout: 120_000 });
  } catch (error) {
    const said = String(error.stderr ?? '').split('\n').find((line) => /code|error/i.test(line)) ?? error.message;
    console.error(`web: uplot ${wanted} could not be fetched by npm (${said.trim()}); the trend page is left out`);
    process.exit(process.argv.includes('--optional') ? 0 : 1);
  }
  return library;
}

const out = argument('--out');
const modules = argument('--modules');
if (!out || !modules) {
  console.error('usage: node build.mjs --out FOLDER --modules FOLDER [--stamp FILE] [--optional]');
  process.exit(2);
}
const library = fetchLibrary(modules);
rmSync(out, { recursive: true, force: true });
mkdirSync(out, { recursive: true });
for (const part of PARTS) cpSync(join(here, part), join(out, part), { recursive: true });
cpSync(join(library, 'dist/uPlot.min.css'), join(out, 'uplot.css'));
const licence = readFileSync(join(library, 'LICENSE'), 'utf8');
writeFileSync(join(out, 'uplot.js'), `/*\n${licence.trim()}\n*/\n${readFileSync(join(library, 'dist/uPlot.iife.min.js'), 'utf8')}`);
console.log(`web: ${readdirSync(out, { recursive: true }).length} files in ${out}`);
if (argument('--stamp')) writeFileSync(argument('--stamp'), '');
