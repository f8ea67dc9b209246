function y = smooth(x, width)
% SMOOTH  Moving average of a vector.
%   y = smooth(x, width) averages over width samples.
if nargin < 2
    width = 5;
end
kernel = ones(1, width) / width;
y = conv(x, kernel, 'same');
figure;
plot(x); hold on;
plot(y, 'LineWidth', 2);
legend('raw', 'smoothed');
end
