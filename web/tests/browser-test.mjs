// Drives the ReplayManager page in headless Chromium against a running
// server with two demo clients: records, watches both client rows update,
// stops, replays the new log, pauses, seeks, resumes, waits for the fidelity
// plot, and saves a screenshot. Fails on any console error.
//   node browser-test.mjs URL TOKEN SCREENSHOT.png
import { chromium } from 'playwright-core';

const [url, token, screenshot] = process.argv.slice(2);
if (!url || !token || !screenshot) {
  console.error('usage: node browser-test.mjs URL TOKEN SCREENSHOT.png');
  process.exit(2);
}

const browser = await chromium.launch({
  executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
  args: ['--no-sandbox'],
});
const errors = [];
let failed = false;
try {
  const page = await browser.newPage({ viewport: { width: 1500, height: 1000 } });
  page.on('console', (message) => {
    if (message.type() === 'error') errors.push(message.text());
  });
  page.on('pageerror', (error) => errors.push(String(error)));
  const step = async (name, action) => {
    console.log('browser test: ' + name);
    await action();
  };
  const slow = { timeout: 30000 };

  await step('open the page and log in', async () => {
    await page.goto(url);
    await page.fill('#token', token);
    await page.click('#login button');
    await page.waitForFunction(() => document.querySelectorAll('#clients tbody tr').length >= 2, null, slow);
  });
  await step('record: both client rows update', async () => {
    await page.click('#record');
    await page.waitForFunction(() => document.getElementById('state').textContent.startsWith('Record'), null, slow);
    await page.waitForFunction(() => {
      const rows = [...document.querySelectorAll('#clients tbody tr')];
      // Records/s and bytes/s of both clients.
      return rows.filter((row) => parseFloat(row.cells[4].textContent) > 0 &&
        parseFloat(row.cells[5].textContent) > 0).length >= 2;
    }, null, slow);
    await page.waitForTimeout(5000);
  });
  await step('stop and drain', async () => {
    await page.click('#stop');
    await page.waitForFunction(() => document.getElementById('record-drain').textContent.startsWith('done'), null, slow);
  });
  await step('choose the new log: its timeline', async () => {
    await page.click('#logs-refresh');
    await page.waitForSelector('#logs tbody tr[data-name="LOGFILE.DAT"]', slow);
    await page.click('#logs tbody tr[data-name="LOGFILE.DAT"]');
    await page.waitForSelector('#timeline .uplot', slow);
  });
  await step('replay', async () => {
    await page.click('#play');
    await page.waitForFunction(() => /record [1-9]/.test(document.getElementById('progress').textContent), null, slow);
  });
  await step('pause, seek, resume', async () => {
    await page.click('#pause');
    await page.waitForFunction(() => document.getElementById('progress').textContent.includes('paused'), null, slow);
    await page.$eval('#seek', (seek) => {
      seek.value = String(Math.min(1, Number(seek.max)));
      seek.dispatchEvent(new Event('input'));
      seek.dispatchEvent(new Event('change'));
    });
    await page.waitForFunction(() => document.getElementById('message').textContent.startsWith('moved'), null, slow);
    await page.click('#resume');
    await page.waitForFunction(() => !document.getElementById('progress').textContent.includes('paused'), null, slow);
  });
  await step('fidelity plot has points for both clients', async () => {
    await page.waitForFunction(() => document.querySelectorAll('#fidelity-table tbody tr').length >= 2 &&
      document.querySelector('#fidelity .uplot') !== null, null, slow);
    await page.waitForTimeout(1500);
  });
  await page.screenshot({ path: screenshot, fullPage: true });
  console.log('browser test: screenshot ' + screenshot);
} catch (error) {
  console.error('browser test failed: ' + error.message);
  failed = true;
} finally {
  await browser.close();
}
if (errors.length > 0) {
  console.error('browser test: console errors:\n  ' + errors.join('\n  '));
  failed = true;
}
process.exit(failed ? 1 : 0);
