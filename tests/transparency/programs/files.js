// Work with files as build tools and package managers do it: trees made, read, copied, replaced, linked, watched,
// renamed and removed. Prints what each step answered; times go to standard error.
//
//   node files.js FOLDER COUNT
const fs = require('fs'), path = require('path');
const top = process.argv[2], count = Number(process.argv[3]);
const tree = path.join(top, 'tree'), file = (i) => path.join(tree, `d${i % 20}`, `f${i}`);
const each = (work) => { for (let i = 0; i < count; i++) work(i); };
const times = [];
const step = (name, work) => {
  const start = process.hrtime.bigint();
  let answer;
  try { answer = work(); } catch (error) { answer = error.code; }
  times.push(`${name} ${(process.hrtime.bigint() - start) / 1000000n} ms`);
  console.log(`${name}: ${answer}`);
};
const code = (work) => { try { work(); return 'done'; } catch (error) { return error.code; } };

step('make', () => each((i) => {
  fs.mkdirSync(path.dirname(file(i)), {recursive: true});
  fs.writeFileSync(file(i), `data ${i}`);
}));
step('read', () => { let bytes = 0; each((i) => { bytes += fs.readFileSync(file(i)).length; }); return bytes; });
step('stat', () => { let bytes = 0; each((i) => { bytes += fs.statSync(file(i)).size; }); return bytes; });
step('copy', () => fs.cpSync(tree, path.join(top, 'copy'), {recursive: true}));
step('replace', () => each((i) => {
  fs.writeFileSync(file(i) + '.tmp', `new ${i}`);
  fs.renameSync(file(i) + '.tmp', file(i));
}));
step('replaced', () => { let same = 0; each((i) => { same += fs.readFileSync(file(i), 'utf8') === `new ${i}`; }); return same; });
step('link', () => {
  for (let i = 0; i < 20; i++) fs.linkSync(file(i), path.join(top, `link${i}`));
  fs.writeFileSync(path.join(top, 'link0'), 'through the link');
  fs.unlinkSync(path.join(top, 'link1'));
  fs.appendFileSync(file(1), ' and more');
  return fs.readFileSync(file(0), 'utf8') + ', ' + fs.readFileSync(file(1), 'utf8');
});
step('append', () => { each((i) => fs.appendFileSync(path.join(top, 'log'), `${i}\n`)); return fs.statSync(path.join(top, 'log')).size; });
step('exclusive', () => code(() => fs.writeFileSync(file(3), 'x', {flag: 'wx'})));
step('read only', () => {
  fs.chmodSync(file(4), 0o444);
  const answers = [code(() => fs.writeFileSync(file(4), 'x')), code(() => fs.openSync(file(4), 'r+'))];
  fs.chmodSync(file(4), 0o666);
  return answers;
});
step('while open', () => {
  const open = fs.openSync(file(5), 'r+');
  const answers = [code(() => fs.renameSync(file(5), file(5) + 'b')), code(() => fs.renameSync(file(5) + 'b', file(5)))];
  fs.writeSync(open, 'written after');
  fs.closeSync(open);
  return [...answers, fs.readFileSync(file(5), 'utf8')];
});
step('truncate', () => { fs.truncateSync(file(6), 2); return fs.readFileSync(file(6), 'utf8'); });
step('missing', () => [code(() => fs.statSync(file(7) + 'x')), code(() => fs.unlinkSync(file(7) + 'x')),
  code(() => fs.renameSync(file(7) + 'x', file(7))), code(() => fs.readdirSync(path.join(top, 'none')))]);
step('rename folder', () => fs.renameSync(path.join(top, 'copy'), path.join(top, 'copy2')));
step('remove full folder', () => fs.rmdirSync(path.join(top, 'copy2')));
step('list', () => fs.readdirSync(top, {recursive: true}).sort().length);
step('remove', () => fs.rmSync(path.join(top, 'copy2'), {recursive: true}));
step('left', () => fs.readdirSync(top).sort().join());
console.error(times.join(', '));
