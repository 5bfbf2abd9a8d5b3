// The viewer in headless Chromium (Debian's, driven by playwright-core): it
// draws the stored objects and the robot's frames, follows a move and a
// clear, shows the cup's red, and logs no error.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { requireWeb, startService, storeTableAndCup } from './service.mjs';

const { chromium } = requireWeb('playwright-core');

test('the viewer draws the world and follows it', async () => {
  const service = await startService(['--token', 'secret']);
  const browser = await chromium.launch({
    executablePath: '/usr/bin/chromium',
    args: ['--use-angle=swiftshader', '--enable-unsafe-swiftshader', '--no-sandbox'],
  });
  try {
    await storeTableAndCup(service);
    const page = await browser.newPage({ viewport: { width: 1000, height: 700 } });
    const errors = [];
    page.on('console', (message) => { if (message.type() === 'error') errors.push(message.text()); });
    page.on('pageerror', (error) => errors.push(error.message));
    await page.goto(`${service.url}/?token=secret`);
    const state = () => page.evaluate(() => window.kqViewer.state());
    await page.waitForFunction(() => {
      const s = window.kqViewer?.state();
      return s?.connected && s.objects.cup && s.frames.includes('Robot_Torso');
    }, null, { timeout: 20000 });
    const drawn = await state();
    assert.deepEqual(drawn.displayed, ['table', 'cup']);
    assert.ok(drawn.frames.length > 14, 'the robot\'s joints are drawn too');
    assert.deepEqual(drawn.objects.cup.world.map((v) => Math.round(v * 100) / 100), [2, 0, 0.45]);

    // Red pixels: the cup (0.9, 0.05, 0.05), lit.
    const shot = await page.screenshot();
    if (process.env.KQ_SCREENSHOT) (await import('node:fs')).writeFileSync(process.env.KQ_SCREENSHOT, shot);
    const png = shot.toString('base64');
    const red = await page.evaluate(async (data) => {
      const image = new Image();
      image.src = `data:image/png;base64,${data}`;
      await image.decode();
      const canvas = Object.assign(document.createElement('canvas'), { width: image.width, height: image.height });
      const context = canvas.getContext('2d');
      context.drawImage(image, 0, 0);
      const pixels = context.getImageData(0, 0, image.width, image.height).data;
      let count = 0;
      for (let i = 0; i < pixels.length; i += 4)
        if (pixels[i] > 100 && pixels[i + 1] < pixels[i] / 3 && pixels[i + 2] < pixels[i] / 3) count++;
      return count;
    }, png);
    assert.ok(red > 200, `the cup's red shows (${red} pixels)`);

    await service.world('updatePosition', 'cup', [0.3, 0, 0.45, 0, 0, 0], true);
    await page.waitForFunction(() => Math.abs(window.kqViewer.state().objects.cup.world[0] - 2.3) < 1e-3, null,
      { timeout: 5000 });
    assert.equal(await service.world('clearObject', 'cup'), 0);
    await page.waitForFunction(() => {
      const s = window.kqViewer.state();
      return !s.objects.cup && !s.frames.includes('cup');
    }, null, { timeout: 5000 });
    assert.deepEqual(errors, []);
  } finally {
    await browser.close();
    await service.close();
  }
});
